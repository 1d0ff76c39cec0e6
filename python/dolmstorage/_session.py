"""A session with the library: from start-up to release, on ranges of memory."""

import array
import ctypes
import enum
import mmap
import struct
import warnings
from dataclasses import dataclass
from types import TracebackType
from typing import Any, Iterator, List, Mapping, Optional, Tuple, Type, TypeVar, Union

from ._errors import (FILE_NOT_FOUND, WARNING_LEVEL, NvarNotFound, Report,
                      ReportedError, StorageError, StorageWarning, ValueTooLong, warn)
from ._flash import Afs, Efs
from ._library import Inputs, Library, Range, decode_name, encode_name, full_name, library

Bytes = Union[bytes, bytearray, memoryview]
Image = Union[bytearray, memoryview, mmap.mmap, "array.array[int]", "ctypes.Array[Any]"]
AnySession = TypeVar("AnySession", bound="Session")

_MAX_VALUE_SIZE = 65523  # a record and its value share a length of 16 bits
_VYNC_HEAD = struct.Struct("<8xI4x")
_NOT_PULLED = 0x2

# The file table: a head with the number of rows, then the rows, each beginning with its SKU.
_FTBL_MIN_SIZE = 1024
_FTBL_ROW_SIZE = 16
_FTBL_MAX_ROWS = 10


class Table(enum.IntEnum):
    """The tables of values."""

    BASE = 0x10000006
    """"orvel.cfg", as loaded."""
    OVERRIDE = 0x10000007
    """"vync.cfg", as loaded or as the last save rebuilt it."""
    CURRENT = 0x10000008
    """The working values."""


class Origin(enum.Enum):
    """Where a current value comes from."""

    BASE = "base"
    OVERRIDE = "override"
    FLASH = "flash"


@dataclass(frozen=True)
class Nvar:
    """An NVAR as it stands."""

    name: str
    """In full, with its leading "/home/"."""
    value: bytes
    """The current value."""
    base: Optional[bytes]
    """Its value in "orvel.cfg"."""
    override: Optional[bytes]
    """Its value in "vync.cfg", if it has one there."""
    origin: Origin
    """A value in "vync.cfg" that is the base value again overrides nothing."""
    max_size: int
    """The limit of a value, in bytes."""
    attributes: int
    """The flag word of the file table: bit 0 a trailer follows the value in flash, bit 1 start-up
    does not read the flash, bit 6 a longer trailer."""
    writable: bool
    """False if a save leaves the file of that name in the flash as it is."""
    number: int
    """Of the file, class nibble included."""


def make_vync_cfg(store: Bytes) -> bytes:
    """ "vync.cfg" around a store: a head of 16 bytes, of which 8 to 11 carry the length, and the
    store."""
    content = bytes(store)
    return _VYNC_HEAD.pack(len(content)) + content


def _skus_of(ftbl: bytes) -> List[int]:
    """The SKUs that a file table has rows for; none if it is no file table."""
    if len(ftbl) < _FTBL_MIN_SIZE or not ftbl.startswith(b"FTBL"):
        return []
    (rows,) = struct.unpack_from("<I", ftbl, 12)
    return [struct.unpack_from("<I", ftbl, _FTBL_ROW_SIZE * (row + 1))[0]
            for row in range(min(rows, _FTBL_MAX_ROWS))]


def _require_row(ftbl: bytes, sku: int) -> None:
    """Without a row the library would start up on an empty table, and a save would leave no value
    in the rebuilt store. A table that is no good at all is the library's to report."""
    skus = _skus_of(ftbl)
    if skus and sku not in skus:
        raise StorageError(f"the file table has no row for SKU {sku}, only for "
                           + ", ".join(map(str, skus)))


def _range(content: "ctypes.Array[ctypes.c_uint8]") -> Range:
    return Range(ctypes.addressof(content) if len(content) else None, len(content))


def _copied(content: bytes) -> "ctypes.Array[ctypes.c_uint8]":
    return (ctypes.c_uint8 * len(content)).from_buffer_copy(content)


def _shared(image: Optional[Image]) -> "ctypes.Array[ctypes.c_uint8]":
    """The bytes of an image themselves, held as long as the result lives."""
    if image is None:
        return (ctypes.c_uint8 * 0)()
    return (ctypes.c_uint8 * memoryview(image).nbytes).from_buffer(image)


def require_no_session() -> None:
    """Raises RuntimeError if the library is up already."""
    if library().qoFcsIsInitialized():
        raise RuntimeError("a process can have one open session at a time")


class Session(Mapping[str, bytes]):
    """The library from start-up to release: a mapping from the names of NVARs to current values.

    A name may leave out its leading "/home/"; iteration gives full names, in the order of the file
    table. `s[name] = value` gives another value, which `save` makes last. An NVAR cannot be added
    or removed.

    Arguments: the bytes of "orvel.cfg", "ftbl.bin" and "vync.cfg" (with its head; empty if there
    is none), which are copied, and the AFS and EFS images, which the library changes in place and
    without a copy: any writable buffer, which must not be resized or closed before the session is.

    Raises ReportedError if start-up fails; StorageError if the file table has no row for the SKU;
    RuntimeError if another session is open in this process; TypeError for an image that is not
    writable. Used as a context manager, it closes at the end; one that nobody holds any more closes
    with a ResourceWarning.
    """

    _is_open = False

    def __init__(self, *, orvel_cfg: Bytes, ftbl: Bytes, vync_cfg: Bytes = b"",
                 qfs_image: Optional[Image] = None, efs_image: Optional[Image] = None,
                 sku: int) -> None:
        self._library: Library = library()
        self._reports: List[Report] = []
        self._sku = sku
        require_no_session()
        _require_row(bytes(ftbl), sku)
        self._qfs_image = qfs_image
        self._efs_image = efs_image
        self._held = [_shared(qfs_image), _shared(efs_image)]
        copies = [_copied(bytes(content)) for content in (orvel_cfg, vync_cfg, ftbl)]
        inputs = Inputs(_range(copies[0]), _range(copies[1]), _range(self._held[0]),
                        _range(copies[2]), sku, _range(self._held[1]))
        self._is_open = True
        try:
            self._call("start-up", self._library.qoQfsDolmInit, ctypes.byref(inputs),
                       self._library.callback)
        except BaseException:
            # The tables may be up although the flash stores are not.
            self.close()
            raise

    def close(self) -> None:
        """Gives up what was not saved, and lets go of the images. May be called again."""
        if not self._is_open:
            return
        self._is_open = False
        # Only a termination releases the tables, and it would write all values back; without AFS it
        # can write nothing.
        context = self._library.afs_context
        if context:
            self._library.afs_free_context(context)
        if self._library.qoFcsIsInitialized():
            self._library.qoQfsNvarTerm(False)
        self._library.take_reports()
        self._held.clear()

    def __enter__(self: AnySession) -> AnySession:
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], value: Optional[BaseException],
                 traceback: Optional[TracebackType]) -> None:
        self.close()

    def __del__(self) -> None:
        if self._is_open:
            try:
                warnings.warn("a session was not closed", ResourceWarning, source=self)
            finally:
                self.close()

    # ---- The library

    def _require_open(self) -> None:
        if not self._is_open:
            raise StorageError("the session is over")

    def _call(self, what: str, function: Any, *arguments: Any) -> None:
        """A call that gives whether it did what it is for."""
        self._require_open()
        self._library.take_reports()
        done = function(*arguments)
        reports = self._library.take_reports()
        self._reports += reports
        if not done:
            missing = bool(reports) and reports[0].number == FILE_NOT_FOUND
            raise (NvarNotFound if missing else ReportedError)(f"{what} failed", reports)
        for report in reports:
            warn(StorageWarning(report))

    def _value(self, name: str, table: Table) -> Tuple[bytes, int, bool]:
        """Value, limit, and whether it goes to the flash."""
        data, size, limit = ctypes.c_void_p(), ctypes.c_uint32(), ctypes.c_uint32()
        writable = ctypes.c_bool()
        self._call(f"reading {name}", self._library.qoQfsNvarGet, encode_name(name),
                   ctypes.byref(data), ctypes.byref(size), table, ctypes.byref(writable),
                   ctypes.byref(limit))
        value = ctypes.string_at(data.value, size.value) if data.value else b""
        return value, limit.value, writable.value

    def _has(self, name: str, table: Table) -> bool:
        self._require_open()
        return bool(self._library.qoqfsCheckNvarExists(encode_name(name), table))

    # ---- Values

    def __getitem__(self, name: str) -> bytes:
        """The current value. Raises NvarNotFound."""
        return self._value(name, Table.CURRENT)[0]

    def __setitem__(self, name: str, value: Bytes) -> None:
        """Gives another current value. Raises NvarNotFound, and ValueTooLong for one over its
        limit, which would else make the whole of a save fail; the value then stays as it was."""
        content = memoryview(value).tobytes()
        _, limit, writable = self._value(name, Table.CURRENT)
        limit = min(limit, _MAX_VALUE_SIZE)
        if len(content) > limit:
            raise ValueTooLong(f"{name}: the value has {len(content)} bytes, over the limit of "
                               f"{limit}")
        data = ctypes.c_void_p()
        self._call(f"changing {name}", self._library.qoQfsNvarResize, encode_name(name),
                   ctypes.byref(data), len(content))
        if content:
            ctypes.memmove(data, content, len(content))
        if not writable:
            warn(StorageWarning(Report(WARNING_LEVEL, 0, "", f"{name} is not written back to flash; "
                                       "its new value stands in vync.cfg alone")))

    def __contains__(self, name: object) -> bool:
        return isinstance(name, str) and self._has(name, Table.CURRENT)

    def __iter__(self) -> Iterator[str]:
        self._require_open()
        names = dict.fromkeys(decode_name(entry.name) for entry in self._library.table_entries())
        return (name for name in names if name in self)

    def __len__(self) -> int:
        return sum(1 for _ in self)

    def table(self, table: Table) -> Mapping[str, bytes]:
        """A copy of one of the three tables, by full names."""
        self._require_open()
        names = dict.fromkeys(decode_name(entry.name) for entry in self._library.table_entries())
        return {name: self._value(name, table)[0] for name in names if self._has(name, table)}

    def nvar(self, name: str) -> Nvar:
        """All that is known of an NVAR. Raises NvarNotFound."""
        value, limit, writable = self._value(name, Table.CURRENT)

        def value_in(table: Table) -> Optional[bytes]:
            return self._value(name, table)[0] if self._has(name, table) else None
        base = value_in(Table.BASE)
        full = full_name(name)
        entry = self._library.get_file_entry_by_file_name(encode_name(full))[0]
        origin = (Origin.FLASH if self._is_pulled(full, entry.attributes) else
                  Origin.BASE if value == base else Origin.OVERRIDE)
        return Nvar(full, value, base, value_in(Table.OVERRIDE), origin, limit, entry.attributes,
                    writable, entry.number)

    def _is_pulled(self, name: str, attributes: int) -> bool:
        """Whether start-up took the value from the file in flash: it is there, and not passed by."""
        number, size = ctypes.c_uint32(), ctypes.c_uint32()
        return (not attributes & _NOT_PULLED and self.deployed
                and self._library.pathToFileNumber(encode_name(name), ctypes.byref(number)) == 0
                and number.value != 0
                and self._library.dfs_getsize(number, ctypes.byref(size)) == 0)

    # ---- The whole

    def save(self) -> None:
        """Writes the current values into the flash images and into a new rebuilt store; the session
        goes on with the same values. Each call writes to the flash again. Raises ReportedError if
        that fails; the session is then over, and files written by then stay written."""
        self._require_open()
        try:
            self._call("saving", self._library.qoQfsNvarTerm, True)
        except ReportedError:
            self.close()
            raise

    @property
    def rebuilt_store(self) -> bytes:
        """The bytes of the overriding table, without a head: after a save those that it rebuilt,
        before that those of "vync.cfg" as they came; empty if there are none."""
        self._require_open()
        data, size = ctypes.c_void_p(), ctypes.c_uint32()
        if not self._library.qoQfsGetBuildVynCfgFcsBuffer(ctypes.byref(data), ctypes.byref(size)):
            return b""
        return ctypes.string_at(data.value or 0, size.value)

    @property
    def vync_cfg(self) -> bytes:
        """The rebuilt store with its head, as "vync.cfg" has it."""
        return make_vync_cfg(self.rebuilt_store)

    @property
    def sku(self) -> int:
        """The SKU that the session is for."""
        return self._sku

    @property
    def deployed(self) -> bool:
        """Whether values come from the flash and go there."""
        self._require_open()
        return bool(self._library.qoQfsIsVfsDeployed())

    @property
    def reports(self) -> Tuple[Report, ...]:
        """All that the library has reported in this session."""
        return tuple(self._reports)

    # ---- The flash stores

    @property
    def qfs_image(self) -> memoryview:
        """The AFS image that the library works on, as writable bytes. What a host writes into it
        the library does not notice. Empty if there is none. Release it before the session ends if
        the image is to be resized afterwards."""
        return memoryview(self._qfs_image if self._qfs_image is not None else bytearray()).cast("B")

    @property
    def efs_image(self) -> memoryview:
        """The EFS image, in the same way."""
        return memoryview(self._efs_image if self._efs_image is not None else bytearray()).cast("B")

    @property
    def afs(self) -> Afs:
        """The files of AFS. Using it raises StorageError if the session has no AFS image."""
        return Afs(self._library, lambda: self._require_store("AFS", self._qfs_image))

    @property
    def efs(self) -> Efs:
        """The files of EFS. Using it raises StorageError if the session has no EFS image."""
        return Efs(self._library, lambda: self._require_store("EFS", self._efs_image))

    def _require_store(self, title: str, image: Optional[Image]) -> None:
        self._require_open()
        if image is None or not memoryview(image).nbytes:
            raise StorageError(f"the session has no {title} image")
