#!/usr/bin/env bash
# Runs a command (self-play, training) so that it takes only the CPU time a match leaves:
#
#   tools/idle.sh COMMAND [ARG...]
#
# SCHED_IDLE alone does not do it where the kernel groups tasks by session (autogroup,
# /proc/sys/kernel/sched_autogroup_enabled): the groups share the cores fairly whatever
# their tasks' policy, so self-play started from another shell took about 40 % of the
# cores from a match's engines. The command gets a session of its own whose group is
# set to nice 19, and SCHED_IDLE within it; the exit status is the command's.
set -euo pipefail
[ $# -gt 0 ] || { sed -n '2,/^[^#]/{/^#/p}' "$0"; exit 2; }
exec setsid --wait bash -c '
  echo 19 > /proc/self/autogroup 2>/dev/null || true
  exec chrt -i 0 "$@"' idle "$@"
