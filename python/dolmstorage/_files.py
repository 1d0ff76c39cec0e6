"""Changes of several files of a set that happen as a whole or not at all, and the lock of a set: the
same steps and the same journal as those of `dolm`, so that each finishes what the other could not.
"""

import contextlib
import json
import os
import signal
import stat
import time
import zlib
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Dict, Iterable, Iterator, List, Mapping, Optional, Set

from ._errors import LockTimeout, StorageError, warn

try:
    import fcntl
except ImportError as _missing:
    raise ImportError("sets on the disk need a POSIX system; use dolmstorage.Session") from _missing

SETTINGS = "set.json"
_MAX_TABLE = 64 << 20
_MAX_IMAGE = 2 << 20
# The largest sizes that make sense, so that a file of another kind is refused.
MEMBERS: Dict[str, int] = {
    "orvel.cfg": _MAX_TABLE, "vync.cfg": _MAX_TABLE, "ftbl.bin": _MAX_TABLE,
    "qfs.img": _MAX_IMAGE, "efs.img": _MAX_IMAGE, SETTINGS: 65536,
}

TABLES = ("orvel.cfg", "vync.cfg", "ftbl.bin")
MANDATORY = ("orvel.cfg", "ftbl.bin")

_CHECKSUM_FIELDS = {"size", "crc32", "block_size", "block_crc32"}

_UNDO_JOURNAL = "dolm-change.undo"
_FINISH_JOURNAL = "dolm-change.finish"
_MAX_JOURNAL = 65536
_FIRST_LINE = "dolm-change 1"
_LAST_LINE = "end"
_ENDING_SIGNALS = [getattr(signal, name) for name in
                   ("SIGHUP", "SIGINT", "SIGQUIT", "SIGPIPE", "SIGALRM", "SIGTERM", "SIGUSR1",
                    "SIGUSR2", "SIGXCPU", "SIGVTALRM", "SIGPROF")]


def read(path: Path, limit: int) -> bytearray:
    """A whole file, device or pipe; leaves the times of a file alone where the system allows it.
    Raises OSError, and StorageError for more than `limit` bytes."""
    def quietly(name: str, flags: int) -> int:
        try:
            return os.open(name, flags | getattr(os, "O_NOATIME", 0))
        except PermissionError:
            return os.open(name, flags)  # only the owner may leave the time of access alone
    with open(path, "rb", opener=quietly) as file:
        content = bytearray(file.read(limit + 1))
    if len(content) > limit:
        raise StorageError(f"{path} has more than {limit} bytes, which are not plausible here")
    return content


class FolderLock:
    """A lock on an existing folder, held on the folder itself; it leaves no trace and ends with the
    process at the latest."""

    def __init__(self, folder: Path) -> None:
        self._folder = folder
        self._descriptor = os.open(folder, os.O_RDONLY | os.O_DIRECTORY)

    def acquire(self, exclusive: bool, patience: float) -> None:
        """Takes the lock, or changes the kind of the one that is held, which may let others in
        between. Raises LockTimeout after so many seconds."""
        operation = (fcntl.LOCK_EX if exclusive else fcntl.LOCK_SH) | fcntl.LOCK_NB
        end = time.monotonic() + patience
        while True:
            try:
                fcntl.flock(self._descriptor, operation)
                return
            except BlockingIOError:
                if time.monotonic() >= end:
                    raise LockTimeout(f"others work on {self._folder}") from None
            time.sleep(0.02)

    def release(self) -> None:
        """May be called again."""
        if self._descriptor >= 0:
            os.close(self._descriptor)
            self._descriptor = -1


@dataclass(frozen=True)
class _Step:
    """A line of a journal with the paths that it works on."""

    kind: str  # "replace", "overwrite" or "remove"
    member: str
    fresh: str  # name of the new file; empty to remove
    target: Path  # behind any links; the member's own name to remove it
    fresh_path: Optional[Path]


def _behind_links(path: Path) -> Path:
    """What a path stands for behind all links, there or not."""
    for _ in range(40):
        if not path.is_symlink():
            return path
        path = path.parent / os.readlink(path)
    raise StorageError(f"{path}: too many links")


def _locate(folder: Path, kind: str, member: str, fresh: str) -> _Step:
    if kind == "remove":
        return _Step(kind, member, "", folder / member, None)
    target = _behind_links(folder / member)
    return _Step(kind, member, fresh, target,
                 (target.parent if kind == "replace" else folder) / fresh)


def _may_replace(target: Path) -> bool:
    """True if a new file with the same owner and mode can take the place of what is there."""
    if not os.access(target.parent, os.W_OK | os.X_OK):
        return False
    try:
        old = target.stat()
    except FileNotFoundError:
        return True
    if stat.S_ISDIR(old.st_mode):
        raise StorageError(f"{target} is a folder")
    keeps_owner = os.geteuid() == 0 or (
        old.st_uid == os.geteuid() and old.st_gid in [os.getegid(), *os.getgroups()])
    return stat.S_ISREG(old.st_mode) and keeps_owner


def _unused_name(folder: Path, member: str) -> str:
    attempt = 0
    while os.path.lexists(folder / f".{member}.{os.getpid()}-{attempt}.new"):
        attempt += 1
    return f".{member}.{os.getpid()}-{attempt}.new"


def _plan(folder: Path, member: str, content: Optional[bytes]) -> _Step:
    if content is None:
        return _locate(folder, "remove", member, "")
    target = _behind_links(folder / member)
    if _may_replace(target):
        return _locate(folder, "replace", member, _unused_name(target.parent, member))
    return _locate(folder, "overwrite", member, _unused_name(folder, member))


def _to_text(steps: Iterable[_Step]) -> bytes:
    lines = [" ".join(filter(None, (step.kind, step.member, step.fresh))) for step in steps]
    return "\n".join([_FIRST_LINE, *lines, _LAST_LINE, ""]).encode()


def _read_journal(folder: Path, name: str) -> Optional[List[_Step]]:
    """Nothing if the bytes are not a whole journal. One can touch nothing but the members of its
    set, wherever it comes from."""
    lines = read(folder / name, _MAX_JOURNAL).decode("latin-1").split("\n")
    if lines[0] != _FIRST_LINE or _LAST_LINE not in lines:
        return None
    steps = []
    for line in lines[1:lines.index(_LAST_LINE)]:
        kind, member, fresh = (line.split() + ["", "", ""])[:3]
        is_fresh = (fresh.startswith(f".{member}.") and fresh.endswith(".new")
                    and "/" not in fresh)
        is_good = {"remove": not fresh, "replace": is_fresh, "overwrite": is_fresh}.get(kind)
        if not is_good or member not in MEMBERS:
            return None
        steps.append(_locate(folder, kind, member, fresh))
    return steps


def _write(descriptor: int, content: bytes) -> None:
    rest = memoryview(content)
    while rest:
        rest = rest[os.write(descriptor, rest):]


def _create(path: Path, content: bytes, replaced: Optional[Path]) -> None:
    """Makes a file, which must not exist, with the content on the disk, and with owner and mode of
    the file that it is to replace. Leaves no file if that fails."""
    old = replaced.stat() if replaced is not None and replaced.exists() else None
    descriptor = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600 if old else 0o666)
    try:
        if old:
            fresh = os.fstat(descriptor)
            if (old.st_uid, old.st_gid) != (fresh.st_uid, fresh.st_gid):
                os.fchown(descriptor, old.st_uid, old.st_gid)
            os.fchmod(descriptor, old.st_mode & 0o7777)
        _write(descriptor, content)
        os.fsync(descriptor)
    except BaseException:
        os.unlink(path)
        raise
    finally:
        os.close(descriptor)


def _overwrite(path: Path, content: bytes) -> None:
    """Writes the content into what is there, whatever it is, and onto the disk."""
    descriptor = os.open(path, os.O_WRONLY)
    try:
        _write(descriptor, content)
        if stat.S_ISREG(os.fstat(descriptor).st_mode):
            os.ftruncate(descriptor, len(content))
            os.fsync(descriptor)
    finally:
        os.close(descriptor)


def _sync(folders: Iterable[Path]) -> None:
    """Brings names that were made, changed or removed onto the disk."""
    for folder in folders:
        descriptor = os.open(folder, os.O_RDONLY | os.O_DIRECTORY)
        try:
            os.fsync(descriptor)
        finally:
            os.close(descriptor)


def _remove(path: Path) -> None:
    with contextlib.suppress(FileNotFoundError):
        os.unlink(path)


def _folders_of(folder: Path, steps: Iterable[_Step]) -> Set[Path]:
    return {folder} | {step.target.parent for step in steps}


def _take(step: _Step) -> None:
    """Takes a step that may have been taken."""
    if step.fresh_path is None:
        _remove(step.target)
    elif os.path.lexists(step.fresh_path):
        if step.kind == "replace":
            os.replace(step.fresh_path, step.target)
        else:
            _overwrite(step.target, read(step.fresh_path, MEMBERS[step.member]))
            os.unlink(step.fresh_path)


def _undo(folder: Path, steps: Iterable[_Step]) -> None:
    """Removes the new files and then the journal."""
    for step in steps:
        if step.fresh_path is not None:
            _remove(step.fresh_path)
    _remove(folder / _UNDO_JOURNAL)


def _close_journal(folder: Path, steps: List[_Step]) -> None:
    # Else a cut of the power could keep the removal of the journal and lose what it stood for.
    _sync(_folders_of(folder, steps))
    os.unlink(folder / _FINISH_JOURNAL)


@contextlib.contextmanager
def _held_signals() -> Iterator[None]:
    """A signal that would end the program waits."""
    before = signal.pthread_sigmask(signal.SIG_BLOCK, _ENDING_SIGNALS)
    try:
        yield
    finally:
        signal.pthread_sigmask(signal.SIG_SETMASK, before)


def _prepare_and_decide(folder: Path, steps: List[_Step],
                        changes: Mapping[str, Optional[bytes]]) -> None:
    _create(folder / _UNDO_JOURNAL, _to_text(steps), None)
    for step in steps:
        content = changes[step.member]
        if content is not None and step.fresh_path is not None:
            _create(step.fresh_path, content, step.target if step.kind == "replace" else None)
    _sync(_folders_of(folder, steps))
    os.replace(folder / _UNDO_JOURNAL, folder / _FINISH_JOURNAL)


def _put_in_place(folder: Path, steps: List[_Step]) -> Optional[Exception]:
    """Takes the decision back if the very first step fails; behind it there is no way back, and the
    result tells what could not be tidied up."""
    done = 0
    try:
        _sync([folder])
        for step in steps:
            _take(step)
            done += 1
        _close_journal(folder, steps)
    except (OSError, StorageError) as failure:
        if done == 0 and steps[0].kind != "overwrite":
            with contextlib.suppress(OSError):
                os.replace(folder / _FINISH_JOURNAL, folder / _UNDO_JOURNAL)
                raise
        return failure
    return None


def commit(folder: Path, changes: Mapping[str, Optional[bytes]]) -> None:
    """Brings all changes of members about or none; None removes one. A link stays, and what it
    points to is changed; what is no regular file is written through; a file that is replaced keeps
    its owner and mode. The caller holds the exclusive lock of the folder, in which nothing is
    interrupted. Raises OSError or StorageError, and has changed nothing then."""
    if not changes:
        return
    with _held_signals():
        ordered = sorted(changes, key=lambda member: changes[member] is None)
        steps = [_plan(folder, member, changes[member]) for member in ordered]
        try:
            _prepare_and_decide(folder, steps, changes)
            failure = _put_in_place(folder, steps)
        except BaseException:
            # What has been decided is the next one's to finish.
            if not (folder / _FINISH_JOURNAL).exists():
                with contextlib.suppress(OSError):
                    _undo(folder, steps)
            raise
    if failure is not None:
        warn(f"the change stands, but was not tidied up: {failure}; whoever opens {folder} "
                      "next does it")


def is_interrupted(folder: Path) -> bool:
    """True if a change in the folder was interrupted."""
    return any((folder / name).exists() for name in (_UNDO_JOURNAL, _FINISH_JOURNAL))


def recover(folder: Path) -> None:
    """Finishes an interrupted change or undoes it, with a warning. The caller holds the exclusive
    lock. Raises OSError, and StorageError for a journal that is damaged."""
    with _held_signals():
        was_decided = (folder / _FINISH_JOURNAL).exists()
        if was_decided:
            steps = _read_journal(folder, _FINISH_JOURNAL)
            if steps is None:
                raise StorageError(f"{folder / _FINISH_JOURNAL} is damaged; the set may hold half "
                                   "of a change")
            for step in steps:
                _take(step)
            _close_journal(folder, steps)
        else:
            _undo(folder, _read_journal(folder, _UNDO_JOURNAL) or [])
    warn(f"{folder}: a change had been interrupted; it was "
                  + ("finished" if was_decided else "undone"))


def _crc32(content: memoryview) -> int:
    """The checksum of EFS: that of zlib without its inversions."""
    return zlib.crc32(content, 0xFFFFFFFF) ^ 0xFFFFFFFF


def _checksums(content: bytes) -> Dict[str, Any]:
    """The checksums of a table as "set.json" has them, in 128 blocks at most."""
    size = max(64, 1 << ((len(content) + 127) // 128 - 1).bit_length())
    view = memoryview(content)
    return {"size": len(content), "crc32": _crc32(view), "block_size": size,
            "block_crc32": [_crc32(view[at:at + size]) for at in range(0, len(content), size)]}


def _is_unchanged(path: Path, content: Optional[bytes]) -> bool:
    """An unchanged file is left alone, so that its time of change tells the truth."""
    if not path.is_file():
        return content is None and not os.path.lexists(path)
    return (content is not None and path.stat().st_size == len(content)
            and read(path, len(content)) == content)


class SetFolder:
    """The folder of a set, locked while the object lives. A change that was interrupted has been
    finished or undone.

    Raises OSError if the folder cannot be opened, LockTimeout, and StorageError for a journal that
    is damaged.
    """

    def __init__(self, path: Path, exclusive: bool, lock_timeout: float) -> None:
        self.path = path
        self._empty: Set[str] = set()  # members without a byte when the set was loaded
        self._settings: Dict[str, Any] = {}
        self._loaded: Dict[str, bytes] = {}
        self._lock = FolderLock(path)
        try:
            self._lock.acquire(exclusive, lock_timeout)
            # A reader lets others in between when it changes the kind of its lock.
            while is_interrupted(path):
                self._lock.acquire(True, lock_timeout)
                if is_interrupted(path):
                    recover(path)
                self._lock.acquire(exclusive, lock_timeout)
        except BaseException:
            self.close()
            raise

    def close(self) -> None:
        """Gives the lock up. May be called again."""
        self._lock.release()

    def load(self) -> Dict[str, bytearray]:
        """The contents of the members; an absent one is empty."""
        content: Dict[str, bytearray] = {}
        for member, limit in MEMBERS.items():
            path = self.path / member
            is_there = member in MANDATORY or path.exists()
            content[member] = read(path, limit) if is_there else bytearray()
            if not content[member]:
                self._empty.add(member)
        self._settings = self._read_settings(content.pop(SETTINGS))
        self._loaded = {table: bytes(content[table]) for table in TABLES}
        return content

    def _read_settings(self, content: bytearray) -> Dict[str, Any]:
        if SETTINGS in self._empty and not (self.path / SETTINGS).exists():
            return {}
        try:
            settings = json.loads(content)
            sku, members = settings["sku"], settings.get("members", [])
            checksums = settings.get("checksums", {})
            is_good = (type(sku) is int and 0 <= sku < 1 << 32
                       and isinstance(members, list) and all(type(one) is str for one in members)
                       and all(set(one) == _CHECKSUM_FIELDS for one in checksums.values()))
        except (ValueError, KeyError, TypeError, AttributeError):
            is_good = False
        if not is_good:
            raise StorageError(f"{self.path / SETTINGS}: not of the form "
                               '{"sku": NUMBER, "members": [NAME, ...], "checksums": {...}}')
        return {"sku": sku, "members": members, "checksums": checksums}

    @property
    def sku(self) -> Optional[int]:
        """The SKU that the set is used with, if "set.json" says it."""
        sku: Optional[int] = self._settings.get("sku")
        return sku

    def _checksums_to_record(self, table: str, content: bytes) -> Dict[str, Any]:
        """What a table is to be held against later. One that had changed behind everyone's back, and
        that is written as it was found, keeps the checksums by which that shows."""
        recorded: Optional[Dict[str, Any]] = self._settings.get("checksums", {}).get(table)
        return recorded if recorded and content == self._loaded[table] else _checksums(content)

    def save(self, content: Mapping[str, bytes], sku: int) -> None:
        """Writes the whole set. A file that the set lacks is removed, but for one that was empty or
        a link to nothing when the set was loaded; one that holds the same already is left alone.
        Raises OSError or StorageError, and has changed nothing then."""
        counted = self._settings.get("members", [])
        members = [member for member in MEMBERS
                   if member != SETTINGS and (member in counted or content[member])]
        settings: Dict[str, Any] = {"sku": sku if self.sku is None else self.sku,
                                    "members": members}
        checksums = {table: self._checksums_to_record(table, content[table])
                     for table in sorted(TABLES) if content[table]}
        if checksums:
            settings["checksums"] = checksums
        wanted: Dict[str, Optional[bytes]] = {}
        for member, data in content.items():
            is_absent = not data and member not in MANDATORY
            if not is_absent or member not in self._empty:
                wanted[member] = None if is_absent else data
        wanted[SETTINGS] = (json.dumps(settings, separators=(",", ":")) + "\n").encode()
        commit(self.path, {member: data for member, data in wanted.items()
                           if not _is_unchanged(self.path / member, data)})
