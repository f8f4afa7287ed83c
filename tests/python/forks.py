"""Runs programs as a fresh interpreter would, but has imported the modules of its arguments before.

A request a line: {"code", "argv", "output"} is answered with the process identifier, {"wait"} with
the exit code."""
import importlib
import json
import os
import sys

for module in sys.argv[1:]:
    importlib.import_module(module)
for line in sys.stdin:
    request = json.loads(line)
    if "wait" in request:
        print(os.waitstatus_to_exitcode(os.waitpid(request["wait"], 0)[1]), flush=True)
    elif (child := os.fork()) != 0:
        print(child, flush=True)
    else:
        for descriptor, path in enumerate((os.devnull, request["output"], request["output"])):
            os.dup2(os.open(path, os.O_RDWR | os.O_CREAT | os.O_APPEND), descriptor)
        break
else:
    sys.exit()
sys.argv = request["argv"]
sys.path[0] = os.path.dirname(sys.argv[0])
exec(compile(request["code"], sys.argv[0], "exec"))  # to its end, and out of this interpreter
