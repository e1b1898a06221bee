#!/usr/bin/env python3
"""Plays a scripted UCI session and prints what the engine says, line ends normalised.

    tools/uci-session.py [--timeout S] COMMAND-FILE ENGINE [ARGS...]

Each line of COMMAND-FILE is sent as it stands; after a `go` line the next one waits
for the engine's `bestmove`, and after `isready` for `readyok`. At the end `quit` is
sent and the engine must leave by itself. The exit status is 1 when the engine dies,
hangs, or ends with a status other than 0.
"""
import subprocess
import sys
import threading
import queue

def main():
    args = sys.argv[1:]
    timeout = 120.0
    if args[:1] == ["--timeout"]:
        timeout = float(args[1])
        args = args[2:]
    with open(args[0]) as f:
        commands = [l.rstrip("\n") for l in f if l.strip()]
    engine = subprocess.Popen(args[1:], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, bufsize=1)
    lines = queue.Queue()
    def reader():
        for line in engine.stdout:
            lines.put(line.rstrip("\r\n"))
        lines.put(None)
    threading.Thread(target=reader, daemon=True).start()

    def wait_for(prefix):
        while True:
            try:
                line = lines.get(timeout=timeout)
            except queue.Empty:
                print(f"uci-session: no '{prefix}' within {timeout} s", file=sys.stderr)
                return False
            if line is None:
                print(f"uci-session: engine ended while waiting for '{prefix}'", file=sys.stderr)
                return False
            print(line, flush=True)
            if line.startswith(prefix):
                return True

    ok = True
    for command in commands + ["isready"]:
        engine.stdin.write(command + "\n")
        engine.stdin.flush()
        if command.startswith("go"):
            ok = wait_for("bestmove")
        elif command == "isready":
            ok = wait_for("readyok")
        if not ok:
            break
    if ok:
        engine.stdin.write("quit\n")
        engine.stdin.flush()
    try:
        rc = engine.wait(timeout=timeout if ok else 1)
    except subprocess.TimeoutExpired:
        engine.kill()
        print("uci-session: engine did not leave", file=sys.stderr)
        return 1
    while True:
        line = lines.get()
        if line is None:
            break
        print(line)
    if rc != 0:
        print(f"uci-session: engine exit status {rc}", file=sys.stderr)
    return 0 if ok and rc == 0 else 1

sys.exit(main())
