# Sourced, not run: sets `work` to tools/work, making it first, on a fresh tree, a link
# to VESTRA_WORK (default ~/vestra-work). A machine may outlive its work tree (a new
# checkout on the same machine), and the records, checkpoints and games under tools/work
# are then found again whichever script runs first. Needs `root` set to the repository.
work=$root/tools/work
if [ ! -e "$work" ] && [ ! -L "$work" ]; then
  vestra_keep=${VESTRA_WORK:-$HOME/vestra-work}
  mkdir -p "$vestra_keep"
  ln -s "$vestra_keep" "$work"
  echo "tools/work -> $vestra_keep" >&2
fi
mkdir -p "$work"
