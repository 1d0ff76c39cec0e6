"""The files of the two flash stores of an open session, as mappings from file number to content."""

import ctypes
import io
from typing import Callable, Iterable, Iterator, MutableMapping, Optional, Union

from ._errors import FlashError, FlashFileNotFound, StorageError
from ._library import Library, decode_name, encode_name, full_name

Key = Union[int, str]
"""The number of a file inside its store, or the name that the file table has for it."""

_NO_FILE = 2
_INVALID = 22
_MEANINGS = {
    1: "not mounted", _NO_FILE: "no such file", 5: "damaged data or failure of the device",
    11: "call again", 12: "out of memory", _INVALID: "no file can have this number",
    27: "larger than a file can be", 28: "no space left", 34: "over the file's limit",
    41: "damaged data", 99: "not possible in this state",
}
_ID_MASK = 0x7FF


class FlashStore(MutableMapping[Key, bytes]):
    """One flash store: file numbers, or names of the file table, to contents.

    Reading gives the whole content, trailers included. Setting or deleting an item changes the image
    at once, in place, as a transaction of the store: a cut of the power leaves the old content or
    the new one. Iteration gives the numbers of the files that exist.

    A later save writes the NVARs of a deployed VFS over the files of their names.

    Raises `FlashFileNotFound` for a file that does not exist, `FlashError` for what else the store
    refuses, and `StorageError` once the session is over.
    """

    _title: str
    _number_in_table: int

    def __init__(self, library: Library, require_up: Callable[[], None]) -> None:
        self._library = library
        self._require_up = require_up

    # What each store does by itself; all give a status.
    def _size(self, file: int, size: "ctypes._CArgObject") -> int:
        raise NotImplementedError

    def _read(self, file: int, length: "ctypes._CArgObject", buffer: "ctypes.Array[ctypes.c_char]"
              ) -> int:
        raise NotImplementedError

    def _write(self, file: int, data: bytes) -> int:
        raise NotImplementedError

    def _delete(self, file: int) -> int:
        raise NotImplementedError

    def _slots(self) -> Iterator[int]:
        raise NotImplementedError

    def _check(self, file: int, status: int) -> None:
        if status != 0:
            kind = FlashFileNotFound if status in (_NO_FILE, _INVALID) else FlashError
            raise kind(self._title, file, status, _MEANINGS.get(status, "failure of the device"))

    def _file(self, key: Key) -> int:
        self._require_up()
        if isinstance(key, int):
            if not 0 <= key <= _ID_MASK:
                raise FlashFileNotFound(self._title, key, _INVALID, _MEANINGS[_INVALID])
            return key
        name = full_name(key)
        entry = self._library.get_file_entry_by_file_name(encode_name(name))
        if not entry or entry[0].store != self._number_in_table:
            raise FlashFileNotFound(self._title, -1, _NO_FILE, f"the file table has no {name} here")
        return int(entry[0].file_id) & _ID_MASK

    def _size_of(self, file: int) -> int:
        size = ctypes.c_uint32()
        self._check(file, self._size(file, ctypes.byref(size)))
        return size.value

    def size(self, key: Key) -> int:
        """The size of a file in bytes."""
        return self._size_of(self._file(key))

    def name(self, file: int) -> Optional[str]:
        """The name that the file table has for the number, if it has one."""
        self._require_up()
        for entry in self._library.table_entries():
            if entry.store == self._number_in_table and entry.file_id & _ID_MASK == file:
                return decode_name(entry.name)
        return None

    def open(self, key: Key, mode: str = "rb") -> "FlashFile":
        """A file as a binary file object: "rb" to read, "r+b" to change what is there, "wb" to write
        it anew. What was written is stored when the object is closed."""
        if mode not in ("rb", "r+b", "wb"):
            raise ValueError(f"mode {mode!r}; there are 'rb', 'r+b' and 'wb'")
        return FlashFile(self, self._file(key), b"" if mode == "wb" else self[key], mode != "rb")

    def __getitem__(self, key: Key) -> bytes:
        file = self._file(key)
        length = ctypes.c_uint32(self._size_of(file))
        buffer = ctypes.create_string_buffer(max(length.value, 1))
        self._check(file, self._read(file, ctypes.byref(length), buffer))
        return buffer.raw[:length.value]

    def __setitem__(self, key: Key, content: Union[bytes, bytearray, memoryview]) -> None:
        file = self._file(key)
        self._check(file, self._write(file, memoryview(content).tobytes()))

    def __delitem__(self, key: Key) -> None:
        file = self._file(key)
        self._check(file, self._delete(file))

    def __contains__(self, key: object) -> bool:
        if not isinstance(key, (int, str)):
            return False
        try:
            self.size(key)
        except FlashFileNotFound:
            return False
        return True

    def __iter__(self) -> Iterator[Key]:
        self._require_up()
        return (file for file in self._slots() if file in self)

    def __len__(self) -> int:
        return sum(1 for _ in self)


class Afs(FlashStore):
    """AFS, on "qfs.img"."""

    _title = "AFS"
    _number_in_table = 1
    _TRUNCATE = 1

    def _size(self, file: int, size: "ctypes._CArgObject") -> int:
        return int(self._library.afs_getfilesize(self._library.afs_context, file, size))

    def _read(self, file: int, length: "ctypes._CArgObject", buffer: "ctypes.Array[ctypes.c_char]"
              ) -> int:
        return int(self._library.afs_readfile(self._library.afs_context, file, 0, length, buffer))

    def _write(self, file: int, data: bytes) -> int:
        return int(self._library.afs_writefile(self._library.afs_context, file, 0, len(data), data,
                                               self._TRUNCATE))

    def _delete(self, file: int) -> int:
        return int(self._library.afs_deletefile(self._library.afs_context, file))

    def _slots(self) -> Iterator[int]:
        size = ctypes.c_uint32()
        for file in range(_ID_MASK + 1):
            self._require_up()
            if self._size(file, ctypes.byref(size)) == _INVALID:
                return
            yield file


class Efs(FlashStore):
    """EFS, on "efs.img". It has a fixed list of files, each with a limit."""

    _title = "EFS"
    _number_in_table = 2

    def _size(self, file: int, size: "ctypes._CArgObject") -> int:
        return int(self._library.EFS_get_file_size(file, size))

    def _read(self, file: int, length: "ctypes._CArgObject", buffer: "ctypes.Array[ctypes.c_char]"
              ) -> int:
        return int(self._library.EFS_read(file, 0, length, buffer))

    def _write(self, file: int, data: bytes) -> int:
        return int(self._library.EFS_write(file, 0, len(data), data))

    def _delete(self, file: int) -> int:
        return int(self._library.EFS_delete(file))

    def _slots(self) -> Iterator[int]:
        return iter(range(self._library.efs_file_count))


class FlashFile(io.BytesIO):
    """A file of a flash store. Leaving a `with` by an exception stores nothing."""

    def __init__(self, store: FlashStore, file: int, content: bytes, writable: bool) -> None:
        super().__init__(content)
        self._store = store
        self._file = file
        self._writable = writable

    def writable(self) -> bool:
        return self._writable

    def write(self, data: "Union[bytes, bytearray, memoryview]") -> int:  # type: ignore[override]
        """Raises io.UnsupportedOperation on a file opened to read."""
        self._require_writable()
        return super().write(data)

    def writelines(  # type: ignore[override]
            self, lines: "Iterable[Union[bytes, bytearray, memoryview]]") -> None:
        """Raises io.UnsupportedOperation on a file opened to read."""
        self._require_writable()
        super().writelines(lines)

    def truncate(self, size: Optional[int] = None) -> int:
        """Raises io.UnsupportedOperation on a file opened to read."""
        self._require_writable()
        return super().truncate(size)

    def _require_writable(self) -> None:
        if not self._writable:
            raise io.UnsupportedOperation("not writable")

    def close(self) -> None:
        """Stores what was written. Raises FlashError, and the old content then stands."""
        if not self.closed:
            content = self.getvalue()
            super().close()
            if self._writable:
                self._store[self._file] = content

    def __exit__(self, kind: object, *rest: object) -> None:
        if kind is not None:
            self._writable = False
        self.close()

    def __del__(self) -> None:
        # What nobody closed is not stored.
        self._writable = False
