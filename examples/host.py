#!/usr/bin/env python3
"""The host of host.c in Python: shows one NVAR of a set, gives it a new value, and saves the set.

Usage: host.py FOLDER SKU NAME VALUE
"""

import sys

import dolmstorage


def change(folder: str, sku: int, name: str, value: str) -> None:
    """Changes one value of a set."""
    with dolmstorage.open(folder, sku=sku) as s:
        nvar = s.nvar(name)
        stays = "" if nvar.writable else ", and its file in the flash stays as it is"
        print(f'{name} was "{nvar.value.decode(errors="replace")}"{stays}')
        s[name] = value.encode()
        s.save()


if __name__ == "__main__":
    if len(sys.argv) != 5:
        sys.exit("usage: host.py FOLDER SKU NAME VALUE")
    try:
        change(sys.argv[1], int(sys.argv[2], 0), sys.argv[3], sys.argv[4])
    except (dolmstorage.StorageError, OSError) as error:
        sys.exit(f"host.py: {error}")
