#!/usr/bin/python3
"""Prints the stair of the house: which room uses which, from the includes and imports of the sources.

    tests/stair/stair.py [TREE]

A room may use its own files and those of the rooms below it. Fails when an arrow climbs, when a file lies in no
room, and when a room knows the host's libraries.
"""
import re
import subprocess
import sys
from pathlib import Path

# From the top down. Rooms on one floor do not use each other.
AGENT = [["agent"], ["jobs/manager"], ["actions", "packaging/boot"], ["config"],
         ["actions/requests", "agent/requests"], ["jobs"], ["agent/client"], ["platform"]]
HOST = [["host"], ["platform"]]
DESK = [["desk"], ["cloud"], ["router"]]
ROOMS = sorted({room for stair in (AGENT, HOST, DESK) for floor in stair for room in floor})
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.MULTILINE)
IMPORT = re.compile(r"^\s*(?:from|import)\s+([\w.]+)", re.MULTILINE)


def room_of(path, rooms):
    """The innermost room that a path lies in, or None."""
    inside = [room for room in rooms if path.startswith(room + "/")]
    return max(inside, key=len, default=None)


def floors(stair):
    return {room: number for number, rooms in enumerate(reversed(stair)) for room in rooms}


def used_by(path, text):
    """The files and modules that a source names, as paths from the top of the tree."""
    if path.suffix == ".py":
        return [name.replace(".", "/") + "/" for name in IMPORT.findall(text)]
    return INCLUDE.findall(text)


def arrows(tree, files, rooms):
    """{(room, room used): files that use it}"""
    found = {}
    for name in files:
        room = room_of(name, rooms)
        if not room:
            continue
        for used in used_by(Path(name), (tree / name).read_text()):
            target = room_of(used, ROOMS)
            if target and target != room:
                found.setdefault((room, target), []).append(name)
    return found


def climbs(room, target, floor):
    return target not in floor or floor[target] >= floor[room]


def check(tree, files, stair):
    """Prints a stair, room by room, and returns what is wrong with it."""
    floor = floors(stair)
    found = arrows(tree, files, floor)
    for rooms in stair:
        for room in rooms:
            down = sorted((target for source, target in found if source == room), key=lambda t: -floor.get(t, 99))
            print(f"{floor[room] + 1}  {room:18} {'-> ' + ', '.join(down) if down else ''}")
    print()
    return [f"{room} uses {target}, which is not below it: {', '.join(sorted(set(names)))}"
            for (room, target), names in sorted(found.items()) if climbs(room, target, floor)]


def without_a_room(files):
    """Sources of the agent's folders that no room holds: a folder that is no room is one too many."""
    rooms = {room for floor in AGENT for room in floor}
    folders = {room.split("/")[0] for room in rooms}
    return [f"{name} lies in no room" for name in files
            if name.endswith((".cpp", ".h")) and name.split("/")[0] in folders and str(Path(name).parent) not in rooms]


def sources(tree):
    listed = subprocess.run(["git", "-C", str(tree), "ls-files", "-co", "--exclude-standard", "*.cpp", "*.h", "*.py"],
                            capture_output=True, text=True, check=True).stdout.split()
    return [name for name in listed if (tree / name).exists()]


def main(tree):
    files = sources(tree)
    wrong = without_a_room(files)
    for stair in (AGENT, HOST, DESK):
        wrong += check(tree, files, stair)
    for line in wrong:
        print(line, file=sys.stderr)
    return 1 if wrong else 0


TREE = Path(__file__).resolve().parent.parent.parent

if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1]).resolve() if len(sys.argv) > 1 else TREE))
