#!/usr/bin/env python3
"""Changes a batch of sets: gives each device of a production run its own values.

Usage: batch.py CHANGES.csv

The first line of the table is "set,name,value"; each other line names a set (a folder, relative to
the table), an NVAR and its new value as text. All changes of a set happen together or not at all,
and a set that cannot be changed does not keep the others from it. Exit status 1 if there was one.
"""

import csv
import sys
from collections import defaultdict
from pathlib import Path
from typing import DefaultDict, List, Tuple

import dolmstorage

Changes = List[Tuple[str, bytes]]


def read_changes(table: Path) -> DefaultDict[Path, Changes]:
    """The changes of each set, in the order of the table."""
    changes: DefaultDict[Path, Changes] = defaultdict(list)
    with open(table, newline="", encoding="utf-8") as file:
        for row in csv.DictReader(file):
            changes[table.parent / row["set"]].append((row["name"], row["value"].encode()))
    return changes


def change_set(folder: Path, changes: Changes) -> None:
    """Makes all changes of one set."""
    with dolmstorage.open(folder) as s:
        for name, value in changes:
            s[name] = value
        s.save()


def main() -> int:
    """Gives the exit status."""
    if len(sys.argv) != 2:
        print("usage: batch.py CHANGES.csv", file=sys.stderr)
        return 2
    status = 0
    for folder, changes in read_changes(Path(sys.argv[1])).items():
        try:
            change_set(folder, changes)
            print(f"{folder}: {len(changes)} values")
        except (dolmstorage.StorageError, OSError) as error:
            print(f"{folder}: {error}", file=sys.stderr)
            status = 1
    return status


if __name__ == "__main__":
    sys.exit(main())
