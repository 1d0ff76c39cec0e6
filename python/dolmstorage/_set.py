"""A session on the files of a set."""

import io
import os
from pathlib import Path
from typing import TYPE_CHECKING, Optional, Union

from ._errors import StorageError
from ._session import Session, require_no_session

if TYPE_CHECKING:
    from ._files import SetFolder


class Set(Session):
    """A session on a set, made by `open`: the images are read into memory, and `save` brings the
    whole to the disk."""

    def __init__(self, folder: "SetFolder", writable: bool, sku: Optional[int]) -> None:
        self._folder = folder
        self._writable = writable
        content = folder.load()
        self._orvel_cfg, self._ftbl = bytes(content["orvel.cfg"]), bytes(content["ftbl.bin"])
        chosen = folder.sku if sku is None else sku
        if chosen is None:
            raise StorageError(f"{folder.path} has no set.json that names its SKU; give one")
        super().__init__(orvel_cfg=self._orvel_cfg, ftbl=self._ftbl,
                         vync_cfg=content["vync.cfg"], qfs_image=content["qfs.img"],
                         efs_image=content["efs.img"], sku=chosen)
        if not writable:
            folder.close()

    @property
    def path(self) -> Path:
        """The folder of the set."""
        return self._folder.path

    def save(self) -> None:
        """Writes the current values into images and tables, and those into the files of the set,
        all of them or none, whatever the end of the program. The session goes on.

        Raises ReportedError if the library fails; the session is then over. Raises OSError or
        StorageError if the files cannot be written; the session goes on, and may try again. In
        either case the set on the disk stays as it was. Raises io.UnsupportedOperation for a set
        that was opened to be read."""
        if not self._writable:
            raise io.UnsupportedOperation("the set was opened to be read")
        super().save()
        self._folder.save({"orvel.cfg": self._orvel_cfg, "vync.cfg": self.vync_cfg,
                           "ftbl.bin": self._ftbl, "qfs.img": bytes(self.qfs_image),
                           "efs.img": bytes(self.efs_image)}, self.sku)

    def close(self) -> None:
        """Gives up what was not saved, and the lock. May be called again."""
        super().close()
        self._folder.close()


def open(path: Union[str, "os.PathLike[str]"], mode: str = "r+", *, sku: Optional[int] = None,
         lock_timeout: float = 30.0) -> Set:
    """Opens the set in a folder: "r+" to change it, which keeps others out until it is closed, "r"
    to read it, which lets others change it as soon as it has been read.

    `sku` takes the place of what the set's "set.json" says; `lock_timeout` is how many seconds to
    wait for others that work on the set. A change that was interrupted is finished or undone first,
    with a warning.

    Raises OSError if the folder or a file of it cannot be read, LockTimeout, StorageError if no SKU
    is known or a file is not what it has to be, ReportedError if the library fails to start up, and
    RuntimeError if another session is open in this process. Needs a POSIX system; ImportError
    elsewhere.
    """
    from ._files import SetFolder
    if mode not in ("r", "r+"):
        raise ValueError(f"mode {mode!r}; there are 'r' and 'r+'")
    require_no_session()  # else it would wait for the lock of a session of this very process
    folder = SetFolder(Path(path), mode == "r+", lock_timeout)
    try:
        return Set(folder, mode == "r+", sku)
    except BaseException:
        folder.close()
        raise
