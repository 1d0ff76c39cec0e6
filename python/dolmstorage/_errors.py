"""What can go wrong, and what the library says about it."""

import sys
import warnings
from dataclasses import dataclass
from typing import Sequence, Tuple, Union

WARNING_LEVEL = 2
ERROR_LEVEL = 4
FILE_NOT_FOUND = 39


@dataclass(frozen=True)
class Report:
    """One report of the library."""

    level: int
    """4 for an error, 2 for a warning."""
    number: int
    """Of the catalogue, 0 to 417. The host guide tells what each means and what to do."""
    text: str
    """Of the catalogue; empty for number 0."""
    message: str
    """What the library says beyond that; often empty."""

    def __str__(self) -> str:
        kind = "error" if self.level >= ERROR_LEVEL else "warning"
        words = [part.strip() for part in (self.text, self.message) if part]
        return " ".join([f"{kind} {self.number}:"] + words)


class StorageError(Exception):
    """Base of what this package raises beside `OSError` for files and `TypeError` for arguments."""

    def __str__(self) -> str:
        # Not that of KeyError, which quotes.
        return Exception.__str__(self)


class ReportedError(StorageError):
    """An operation of the library failed.

    `reports` are those of the failed operation, in their order. The particular one comes first; its
    fields are those of the exception.
    """

    def __init__(self, failed: str, reports: Sequence[Report]) -> None:
        super().__init__("; ".join([failed] + [str(report) for report in reports]))
        self.reports: Tuple[Report, ...] = tuple(reports)
        first = reports[0] if reports else Report(ERROR_LEVEL, 0, "", failed)
        self.level = first.level
        self.number = first.number
        self.text = first.text
        self.message = first.message


class NvarNotFound(ReportedError, KeyError):
    """There is no NVAR of that name in the table (number 39)."""


class ValueTooLong(StorageError, ValueError):
    """A value is over the limit of its NVAR."""


class FlashError(StorageError):
    """An operation on a flash store failed."""

    def __init__(self, store: str, file: int, status: int, meaning: str) -> None:
        super().__init__(f"{store} file {file}: status {status}, {meaning}")
        self.store = store
        self.file = file
        self.status = status


class FlashFileNotFound(FlashError, KeyError):
    """The flash store has no such file (status 2), or can have none of that number (22)."""


class LockTimeout(StorageError, TimeoutError):
    """Others worked on the set all the time."""


class StorageWarning(UserWarning):
    """The library has reported something beside a success, or a save has an effect less than one
    would think. `report` has level 2 and number 0 in the latter case."""

    def __init__(self, report: Report) -> None:
        super().__init__(str(report))
        self.report = report


def warn(warning: Union[StorageWarning, str]) -> None:
    """Warns of the place outside this package that called."""
    level, frame = 1, sys._getframe()
    while frame.f_back is not None and frame.f_globals.get("__package__") == __package__:
        level, frame = level + 1, frame.f_back
    if isinstance(warning, str):
        warnings.warn(warning, UserWarning, stacklevel=level)
    else:
        warnings.warn(warning, stacklevel=level)
