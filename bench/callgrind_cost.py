#!/usr/bin/env python3
"""Prints what the code of one program or library costs in a callgrind profile, as JSON.

Usage: callgrind_cost.py PROFILE NAME [OTHER...]

The file name of that program or library contains NAME.  "own": the instructions in its own code.
"behalf": those that it executes in libraries that it calls, except those that have OTHER in their
names (its callers and stand-ins).  "allocations": how often it allocates memory.
"""
import json
import re
import sys

ALLOCATORS = re.compile(r"^(malloc|calloc|realloc|operator new.*)$")


class Profile:
    """The parts of callgrind's output that are needed here."""

    def __init__(self, path):
        self.own = {}  # object -> instructions
        self.calls = {}  # (caller's object, called object) -> inclusive instructions
        self.allocations = {}  # caller's object -> allocator calls
        self.names = {}
        current = called = None
        called_function = ""
        count = 0
        in_call = False
        for line in open(path):
            key, _, value = line.rstrip("\n").partition("=")
            if key == "ob":
                current = called = self.name("ob", value)
            elif key == "fn":
                called = current
                self.name("fn", value)
            elif key == "cob":
                called = self.name("ob", value)
            elif key == "cfn":
                called_function = self.name("fn", value)
            elif key == "calls":
                count = int(value.split()[0])
                in_call = True
            elif line[:1] in "0123456789+-*":
                cost = int(line.split()[1]) if len(line.split()) > 1 else 0
                if not in_call:
                    self.own[current] = self.own.get(current, 0) + cost
                    continue
                edge = (current, called)
                self.calls[edge] = self.calls.get(edge, 0) + cost
                if ALLOCATORS.match(called_function):
                    self.allocations[current] = self.allocations.get(current, 0) + count
                in_call = False
                called = current

    def name(self, kind, value):
        number, _, text = value.partition(" ")
        if text:
            self.names[kind, number] = text
        return self.names.get((kind, number), value)


def cost(path, name, others):
    profile = Profile(path)

    def is_ours(item):
        return name in item

    def is_other(item):
        return any(other in item for other in others)

    own = sum(cost for item, cost in profile.own.items() if is_ours(item))
    out = sum(cost for (caller, called), cost in profile.calls.items()
              if is_ours(caller) and not is_ours(called))
    back = sum(cost for (caller, called), cost in profile.calls.items()
               if is_ours(caller) and is_other(called))
    allocations = sum(count for item, count in profile.allocations.items() if is_ours(item))
    return {"own": own, "behalf": out - back, "allocations": allocations}


if __name__ == "__main__":
    print(json.dumps(cost(sys.argv[1], sys.argv[2], sys.argv[3:])))
