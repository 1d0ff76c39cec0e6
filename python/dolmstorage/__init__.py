"""The configuration variables (NVARs) and flash stores of a firmware image, over DolmStorageLib.

    import dolmstorage

    with dolmstorage.open("set") as s:
        s["net/hostname"] = b"board"
        s.save()

`open` works on a set, a folder as the program `dolm` makes it: it takes the same lock, and `save`
changes all files of the set or none, whatever the end of the program. `Session` does the same on
ranges of memory, on the flash images in place, and touches no file.

What the library reports as an error is raised as `ReportedError`, what it reports beside a success
is warned of as `StorageWarning`. Sizes are in bytes everywhere, values are `bytes`.

The library has one instance in a process, so there is one open session at a time. Calls from
several threads do not overlap.

The shared library is searched for in the environment variable DOLM_STORAGE_LIBRARY (its path), in
the folders above this package, and where the system looks.
"""

from ._errors import (FlashError, FlashFileNotFound, LockTimeout, NvarNotFound, Report,
                      ReportedError, StorageError, StorageWarning, ValueTooLong)
from ._flash import FlashFile, FlashStore
from ._session import Nvar, Origin, Session, Table, make_vync_cfg
from ._set import Set, open
from ._version import VERSION as __version__

__all__ = [
    "FlashError", "FlashFile", "FlashFileNotFound", "FlashStore", "LockTimeout", "Nvar",
    "NvarNotFound", "Origin", "Report", "ReportedError", "Session", "Set", "StorageError",
    "StorageWarning", "Table", "ValueTooLong", "__version__", "make_vync_cfg", "open",
]
