"""The shared library: its records, its functions, and the callback that collects its reports."""

import ctypes
import os
import sys
from ctypes import POINTER, c_bool, c_char, c_char_p, c_int32, c_uint8, c_uint32, c_void_p
from pathlib import Path
from typing import Any, Iterator, List, Optional

from ._errors import Report

MAJOR = 1


class Range(ctypes.Structure):
    """One byte range of the host."""

    _pack_ = 1
    _fields_ = [("data", c_void_p), ("size", c_uint32)]


class Inputs(ctypes.Structure):
    """The inputs of start-up."""

    _pack_ = 1
    _fields_ = [("orvel_cfg", Range), ("vync_cfg", Range), ("qfs_image", Range), ("ftbl", Range),
                ("sku", c_uint32), ("efs_image", Range)]


class TableEntry(ctypes.LittleEndianStructure):
    """One entry of the file table, as it stands in the host's bytes."""

    _pack_ = 1
    _fields_ = [("name", c_char * 48), ("number", c_uint32), ("attributes", ctypes.c_uint16),
                ("unread_54", c_uint8 * 4), ("file_id", ctypes.c_uint16),
                ("unread_60", c_uint8 * 3), ("store", c_uint8), ("max_size", c_uint32)]


assert ctypes.sizeof(TableEntry) == 68

StatusCallback = ctypes.CFUNCTYPE(None, c_int32, c_int32, c_char_p, c_char_p)

_OUT_BYTES = POINTER(c_void_p)
_OUT_U32 = POINTER(c_uint32)
_PROTOTYPES = {
    "qoQfsDolmInit": (c_bool, [POINTER(Inputs), StatusCallback]),
    "qoFcsIsInitialized": (c_bool, []),
    "qoQfsIsInitialized": (c_bool, []),
    "qoQfsIsVfsDeployed": (c_bool, []),
    "qoqfsCheckNvarExists": (c_bool, [c_char_p, c_uint32]),
    "qoQfsNvarGet": (c_bool, [c_char_p, _OUT_BYTES, _OUT_U32, c_uint32, POINTER(c_bool), _OUT_U32]),
    "qoQfsNvarResize": (c_bool, [c_char_p, _OUT_BYTES, c_uint32]),
    "qoQfsNvarTerm": (c_bool, [c_bool]),
    "qoQfsGetBuildVynCfgFcsBuffer": (c_bool, [_OUT_BYTES, _OUT_U32]),
    "get_file_entry_by_file_name": (POINTER(TableEntry), [c_char_p]),
    "pathToFileNumber": (c_uint32, [c_char_p, _OUT_U32]),
    "dfs_getsize": (c_uint32, [c_uint32, _OUT_U32]),
    "afs_free_context": (None, [c_void_p]),
    "afs_getfilesize": (c_uint32, [c_void_p, c_int32, _OUT_U32]),
    "afs_readfile": (c_uint32, [c_void_p, c_int32, c_uint32, _OUT_U32, c_void_p]),
    "afs_writefile": (c_uint32, [c_void_p, c_int32, c_uint32, c_uint32, c_char_p, c_uint32]),
    "afs_deletefile": (c_uint32, [c_void_p, c_int32]),
    "EFS_get_efs_size": (c_uint32, []),
    "EFS_get_file_size": (c_uint32, [c_uint32, _OUT_U32]),
    "EFS_read": (c_uint32, [c_uint32, c_uint32, _OUT_U32, c_void_p]),
    "EFS_write": (c_uint32, [c_uint32, c_uint32, c_uint32, c_char_p]),
    "EFS_delete": (c_uint32, [c_uint32]),
}


def _candidates() -> Iterator[str]:
    named = os.environ.get("DOLM_STORAGE_LIBRARY")
    if named:
        yield named
        return
    name = "DolmStorageLib.dll" if sys.platform == "win32" else f"libDolmStorageLib.so.{MAJOR}"
    for folder in Path(__file__).resolve().parents:
        for place in (folder / name, folder / "bin" / name):
            if place.is_file():
                yield str(place)
    yield name


class Library:
    """The functions and variables of the one library of the process."""

    def __init__(self) -> None:
        failures: List[str] = []
        for path in _candidates():
            try:
                # Keeps the interpreter's lock: the library must not run on two threads at once.
                self._loaded = ctypes.PyDLL(path)
                break
            except OSError as failure:
                failures.append(str(failure))
        else:
            raise OSError("cannot load the storage library: " + "; ".join(failures))
        for name, (result, arguments) in _PROTOTYPES.items():
            function = getattr(self._loaded, name)
            function.restype = result
            function.argtypes = arguments
        self.reports: List[Report] = []
        # The library keeps it for ever.
        self.callback = StatusCallback(self._take_report)

    def _take_report(self, level: int, number: int, text: bytes, message: bytes) -> None:
        def decode(raw: bytes) -> str:
            return raw.decode("utf-8", "backslashreplace")
        self.reports.append(Report(level, number, decode(text), decode(message)))

    def take_reports(self) -> List[Report]:
        """What has been reported since the last call."""
        taken, self.reports = self.reports, []
        return taken

    def __getattr__(self, name: str) -> Any:
        return getattr(self._loaded, name)

    @property
    def afs_context(self) -> Optional[int]:
        """The address of the one AFS store."""
        return c_void_p.in_dll(self._loaded, "dfs_context").value

    @property
    def efs_file_count(self) -> int:
        """Slots of the list of EFS files."""
        return c_uint32.in_dll(self._loaded, "g_efs_files_num").value

    def table_entries(self) -> Iterator[TableEntry]:
        """The entries of the selected file table, in its order."""
        table = POINTER(TableEntry).in_dll(self._loaded, "g_table_buf")
        for i in range(c_int32.in_dll(self._loaded, "g_table_num_files").value):
            yield table[i]


_library: Optional[Library] = None


def library() -> Library:
    """The library, loaded at first use. Raises OSError if there is none."""
    global _library
    if _library is None:
        _library = Library()
    return _library


def decode_name(raw: bytes) -> str:
    """The name of a file, with bytes that are no UTF-8 kept."""
    return raw.decode("utf-8", "surrogateescape")


def encode_name(name: str) -> bytes:
    """The other way round. Raises ValueError for a name with a NUL in it."""
    if "\0" in name:
        raise ValueError("a name with a NUL in it")
    return name.encode("utf-8", "surrogateescape")


def full_name(name: str) -> str:
    """The name with "/home/" in front, which may be left out where a name is looked up."""
    return name if name.startswith("/home/") else "/home/" + name
