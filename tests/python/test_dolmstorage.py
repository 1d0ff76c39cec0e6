"""The Python package against the program: each reads what the other wrote, and finishes what the
other could not.

The environment names the program (DOLM_PROGRAM), the shared library (DOLM_STORAGE_LIBRARY) and the
object to preload that ends the program at a given call (CRASH_SHIM).
"""

import fcntl
import filecmp
import io
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest
import warnings
from pathlib import Path
from typing import Any, Callable, Dict, List, Optional
from unittest import mock

import dolmstorage
from dolmstorage import _files

DOLM = os.environ["DOLM_PROGRAM"]
CALLS_THAT_CHANGE = ("open", "write", "fsync", "fchmod", "replace", "unlink", "ftruncate")


class SetTest(unittest.TestCase):
    """Has the sample set in a folder of its own."""

    def setUp(self) -> None:
        memory = "/dev/shm"  # where bringing a file onto the disk takes no time
        self.folder = Path(tempfile.mkdtemp(dir=memory if os.path.isdir(memory) else None))
        self.addCleanup(shutil.rmtree, self.folder)
        self.set = self.folder / "set"
        self.dolm("sample", self.set)
        ignored = warnings.catch_warnings()
        ignored.__enter__()
        self.addCleanup(ignored.__exit__, None, None, None)
        warnings.simplefilter("ignore")

    def dolm(self, *arguments: object, **environment: str) -> "subprocess.CompletedProcess[str]":
        return subprocess.run([DOLM, *map(str, arguments)], text=True, capture_output=True,
                              env={**os.environ, **environment},
                              check="CRASH_AT" not in environment)

    def copy(self, name: str) -> Path:
        copied = self.folder / name
        shutil.rmtree(copied, ignore_errors=True)
        shutil.copytree(self.set, copied, symlinks=True)
        return copied

    def content(self, folder: Path) -> Dict[str, bytes]:
        return {path.name: path.read_bytes() for path in sorted(folder.iterdir())}

    def images(self) -> Dict[str, Any]:
        return {"orvel_cfg": (self.set / "orvel.cfg").read_bytes(),
                "vync_cfg": (self.set / "vync.cfg").read_bytes(),
                "ftbl": (self.set / "ftbl.bin").read_bytes(),
                "qfs_image": bytearray((self.set / "qfs.img").read_bytes()),
                "efs_image": bytearray((self.set / "efs.img").read_bytes()), "sku": 1}


class Values(SetTest):
    def test_a_change_leaves_the_bytes_that_the_program_leaves(self) -> None:
        other = self.copy("other")
        self.dolm("set", other, "net/hostname", "board", "radio/cal/trim", "hex:0102")
        with dolmstorage.open(self.set) as s:
            s["net/hostname"] = bytearray(b"board")
            s["/home/radio/cal/trim"] = memoryview(b"\1\2")
            s.save()
            self.assertEqual(s["net/hostname"], b"board")
        self.assertEqual(self.content(self.set), self.content(other))

    def test_what_was_not_saved_changes_nothing(self) -> None:
        before = self.content(self.set)
        with dolmstorage.open(self.set) as s:
            s["net/hostname"] = b"board"
            s.afs[32] = b"board"
        with dolmstorage.open(self.set, "r") as s:
            s["net/hostname"] = b"board"
            self.assertRaises(io.UnsupportedOperation, s.save)
        self.assertEqual(self.content(self.set), before)
        self.assertRaises(dolmstorage.StorageError, lambda: s["net/hostname"])

    def test_a_mapping_of_all_current_values(self) -> None:
        with dolmstorage.open(self.set) as s:
            self.assertEqual(len(list(s)), len(s))
            self.assertTrue(all(name.startswith("/home/") for name in s))
            self.assertIn("net/hostname", s)
            self.assertNotIn("net/legacy_proxy", s)  # has an overriding value alone
            self.assertIn("/home/net/legacy_proxy", s.table(dolmstorage.Table.OVERRIDE))
            self.assertIsNone(s.get("no/such"))
            with self.assertRaises(ValueError):
                s["a\0b"]

    def test_all_about_an_nvar(self) -> None:
        with dolmstorage.open(self.set) as s:
            host = s.nvar("net/hostname")
            self.assertEqual((host.base, host.override, host.value, host.origin, host.max_size,
                              host.attributes, host.writable, host.number),
                             (b"device", b"gateway-17", b"gateway-17", dolmstorage.Origin.FLASH, 64,
                              0, True, 32))
            self.assertEqual(s.nvar("radio/power_table").attributes & 1, 1)
            self.assertFalse(s.nvar("radio/power_table").writable)
            self.assertEqual(s.nvar("radio/thermal_table").origin, dolmstorage.Origin.BASE)
            self.assertEqual(s.nvar("security/pairing").override, None)

    def test_the_rebuilt_store(self) -> None:
        with dolmstorage.open(self.set) as s:
            before = (self.set / "vync.cfg").read_bytes()
            self.assertEqual(s.vync_cfg, before)
            self.assertEqual(s.rebuilt_store, before[16:])
            s.save()
            self.assertNotEqual(s.vync_cfg, before)
            self.assertEqual(s.vync_cfg, (self.set / "vync.cfg").read_bytes())


class Failures(SetTest):
    def test_a_report_is_an_exception_with_its_fields(self) -> None:
        inputs = self.images()
        inputs["orvel_cfg"] = b"no store"
        with self.assertRaises(dolmstorage.ReportedError) as caught:
            dolmstorage.Session(**inputs)
        error = caught.exception
        self.assertEqual((error.level, error.number, error.text, error.message),
                         (4, 331, "Failed to create FCS handle.", " Library status code: 10"))
        self.assertIn("error 331: Failed to create FCS handle. Library status code: 10", str(error))
        dolmstorage.Session(**self.images()).close()  # nothing is left up

    def test_a_name_that_is_missing_is_a_key_error(self) -> None:
        with dolmstorage.open(self.set) as s, self.assertRaises(KeyError) as caught:
            s["no/such"] = b""
        self.assertIsInstance(caught.exception, dolmstorage.NvarNotFound)
        self.assertEqual(getattr(caught.exception, "number"), 39)

    def test_a_value_over_its_limit_is_refused_at_once(self) -> None:
        with dolmstorage.open(self.set) as s:
            with self.assertRaises(dolmstorage.ValueTooLong):
                s["mca/boot_flags"] = bytes(5)
            self.assertEqual(s["mca/boot_flags"], b"\1\0\0\0")
            with self.assertRaises(TypeError):
                s["mca/boot_flags"] = "1"  # type: ignore[assignment]

    def test_a_save_that_the_library_refuses_ends_the_session_and_changes_no_file(self) -> None:
        before = self.content(self.set)
        with dolmstorage.open(self.set) as s:
            s["net/hostname"] = b"board"
            s.qfs_image[:] = bytes(len(s.qfs_image))
            with self.assertRaises(dolmstorage.ReportedError):
                s["radio/cal/trim"] = b"12345678"
                s.efs_image[:] = bytes(len(s.efs_image))
                s.save()
        self.assertEqual(self.content(self.set), before)

    def test_warnings_are_warnings_of_the_callers_line(self) -> None:
        with self.assertWarns(dolmstorage.StorageWarning) as caught:
            s = dolmstorage.open(self.set)
        self.assertEqual(caught.filename, __file__)
        report = caught.warning.report  # type: ignore[attr-defined]
        self.assertEqual((report.level, report.number), (2, 0))
        self.assertIn("/home/radio/thermal_table", report.message)
        with s, self.assertWarnsRegex(dolmstorage.StorageWarning, "not written back to flash"):
            s["radio/power_table"] = b"x"

    def test_one_session_at_a_time_and_only_for_a_sku_of_the_table(self) -> None:
        with dolmstorage.open(self.set):  # whose lock would keep the other waiting
            self.assertRaises(RuntimeError, dolmstorage.open, self.set)
        self.assertRaisesRegex(dolmstorage.StorageError, "only for 1, 2", dolmstorage.open,
                               self.set, sku=3)
        self.assertRaises(FileNotFoundError, dolmstorage.open, self.folder / "nowhere")
        (self.set / "set.json").write_text('{"sku": -1}')
        self.assertRaisesRegex(dolmstorage.StorageError, "set.json", dolmstorage.open, self.set)


    def test_a_session_that_nobody_holds_gives_up_library_and_lock(self) -> None:
        with self.assertWarns(ResourceWarning):
            dolmstorage.open(self.set)
        dolmstorage.open(self.set, lock_timeout=0).close()


class Memory(SetTest):
    def test_images_are_changed_in_place_and_let_go(self) -> None:
        other = self.copy("other")
        self.dolm("set", other, "net/hostname", "board")
        inputs = self.images()
        with dolmstorage.Session(**inputs) as s:
            s["net/hostname"] = b"board"
            s.save()
            self.assertEqual(s.qfs_image, inputs["qfs_image"])
            self.assertEqual(s.vync_cfg, (other / "vync.cfg").read_bytes())
        self.assertEqual(inputs["qfs_image"], (other / "qfs.img").read_bytes())
        inputs["qfs_image"].clear()

    def test_an_image_that_is_not_writable_is_refused(self) -> None:
        inputs = self.images()
        inputs["qfs_image"] = bytes(inputs["qfs_image"])
        self.assertRaises(TypeError, dolmstorage.Session, **inputs)

    def test_tables_alone(self) -> None:
        inputs = self.images()
        with dolmstorage.Session(orvel_cfg=inputs["orvel_cfg"], ftbl=inputs["ftbl"], sku=1) as s:
            self.assertFalse(s.deployed)
            self.assertEqual(s["net/hostname"], b"device")
            self.assertEqual(s.rebuilt_store, b"")
            self.assertRaises(dolmstorage.StorageError, list, s.afs)
            s.save()


class Flash(SetTest):
    def test_files_are_items(self) -> None:
        with dolmstorage.open(self.set) as s:
            for store, number, name in ((s.afs, 32, "net/hostname"), (s.efs, 3, "radio/cal/trim")):
                self.assertEqual(store[number], s[name])
                self.assertEqual(store.name(number), "/home/" + name)
                store[name] = b"new"
                self.assertEqual((store[number], store.size(name)), (b"new", 3))
                store[number] = b""
                self.assertEqual(store[number], b"")
                self.assertIn(number, list(store))
                del store[number]
                self.assertNotIn(number, list(store))
                for key in (number, 5000, -1):
                    self.assertRaises(KeyError, store.size, key)
                for path in ("usb/none", "no/such"):
                    self.assertRaises(KeyError, store.size, path)
            with self.assertRaises(dolmstorage.FlashError) as caught:
                s.efs[3] = bytes(17)
            self.assertEqual((caught.exception.status, caught.exception.file), (34, 3))
            self.assertNotIn(32, s.efs)
            numbers = iter(s.afs)
            next(numbers)
        self.assertRaises(dolmstorage.StorageError, next, numbers)

    def test_file_objects_store_what_was_written_when_they_are_closed(self) -> None:
        with dolmstorage.open(self.set) as s:
            with s.afs.open("net/hostname", "r+b") as file:
                self.assertEqual(file.read(7), b"gateway")
                file.write(b"+")
            self.assertEqual(s.afs[32], b"gateway+17")
            with self.assertRaises(RuntimeError), s.afs.open(32, "wb") as file:
                file.write(b"torn")
                raise RuntimeError
            with s.afs.open(32) as file:
                self.assertRaises(io.UnsupportedOperation, file.write, b"x")
                self.assertRaises(io.UnsupportedOperation, file.writelines, [b"x"])
                self.assertEqual(file.read(), b"gateway+17")


class Locks(SetTest):
    def test_neither_gets_in_while_the_other_changes(self) -> None:
        with dolmstorage.open(self.set):
            self.assertIn("another command works on", self.dolm(
                "get", self.set, "net/hostname", "--lock-timeout", "0", CRASH_AT="0").stderr)
        with dolmstorage.open(self.set, "r"):
            self.dolm("set", self.set, "net/hostname", "board", "--lock-timeout", "0")
        other = os.open(self.set, os.O_RDONLY)
        fcntl.flock(other, fcntl.LOCK_SH)
        self.assertRaises(dolmstorage.LockTimeout, dolmstorage.open, self.set, lock_timeout=0)
        dolmstorage.open(self.set, "r", lock_timeout=0).close()
        os.close(other)


class Crashes(SetTest):
    """One member is a link into another folder, and one goes away."""

    def setUp(self) -> None:
        super().setUp()
        (self.folder / "elsewhere").mkdir()
        (self.set / "qfs.img").rename(self.folder / "elsewhere/flash")
        (self.set / "qfs.img").symlink_to(self.folder / "elsewhere/flash")
        self.flash = (self.folder / "elsewhere/flash").read_bytes()

    def restore(self) -> Path:
        (self.folder / "elsewhere/flash").write_bytes(self.flash)
        return self.copy("now")

    def change(self, folder: Path) -> None:
        with dolmstorage.open(folder) as s:
            s["net/hostname"] = b"board"
            s["radio/cal/trim"] = b"\1"
            s.save()

    def in_child(self, work: Callable[[], None], end_at: int, how: str) -> bool:
        """Runs it in a process whose n-th call that changes something is its end, or fails. True if
        there was such a call."""
        child = os.fork()
        if child == 0:
            left = [end_at]

            def replaced(call: Callable[..., Any]) -> Callable[..., Any]:
                def counted(*arguments: Any) -> Any:
                    left[0] -= 1
                    if left[0] == 0:
                        if how == "kill":
                            os.kill(os.getpid(), signal.SIGKILL)
                        raise OSError(28, "no space left")
                    return call(*arguments)
                return counted
            for name in CALLS_THAT_CHANGE:
                mock.patch.object(_files.os, name,  # type: ignore[attr-defined]
                                  replaced(getattr(os, name))).start()
            try:
                work()
            except (OSError, dolmstorage.StorageError):
                pass
            os._exit(0 if left[0] > 0 else 9)
        return os.waitpid(child, 0)[1] != 0

    def states(self) -> List[Dict[str, bytes]]:
        before = self.content(self.restore())
        now = self.restore()
        self.change(now)
        return [before, self.content(now)]

    def by_program(self, folder: Path) -> None:
        self.dolm("list", folder)

    def by_package(self, folder: Path) -> None:
        dolmstorage.open(folder, "r").close()

    def test_a_save_that_ends_anywhere_is_settled_by_the_program_and_by_the_package(self) -> None:
        states = self.states()
        for how in ("kill", "fail"):
            for settle in (self.by_program, self.by_package):
                ends, seen = 1, set()
                while True:
                    now = self.restore()
                    if not self.in_child(lambda: self.change(now), ends, how):
                        break
                    settle(now)
                    self.assertIn(self.content(now), states, f"{how} at {ends}")
                    self.assertEqual(os.listdir(self.folder / "elsewhere"), ["flash"])
                    seen.add(states.index(self.content(now)))
                    ends += 1
                self.assertGreater(ends, 15)
                self.assertEqual(seen, {0, 1})
                self.assertEqual(self.content(now), states[1])

    def test_the_package_settles_what_the_program_left(self) -> None:
        states, ends, code = self.states(), 1, -9
        while code != 0:
            now = self.restore()
            code = self.dolm("set", now, "net/hostname", "board", "radio/cal/trim", "hex:01",
                             LD_PRELOAD=os.environ["CRASH_SHIM"], CRASH_HOW="kill",
                             CRASH_AT=str(ends)).returncode
            self.by_package(now)
            self.assertIn(self.content(now), states, f"killed at {ends}")
            ends += 1
        self.assertGreater(ends, 15)

    def test_a_recovery_that_ends_anywhere_is_settled_too(self) -> None:
        states, ends = self.states(), 1
        interrupted: Optional[Path] = None
        while True:
            now = self.restore()
            self.in_child(lambda: self.change(now), 14, "kill")
            interrupted = now
            if not self.in_child(lambda: self.by_package(now), ends, "kill"):
                break
            self.by_program(now)
            self.assertIn(self.content(now), states, f"at {ends}")
            ends += 1
        self.assertGreater(ends, 2)
        self.assertIn(self.content(interrupted), states)

    def test_a_damaged_journal_is_not_guessed_at(self) -> None:
        (self.set / "dolm-change.finish").write_text("dolm-change 1\nreplace /etc/passwd x\nend\n")
        self.assertRaisesRegex(dolmstorage.StorageError, "damaged", dolmstorage.open, self.set)
        self.assertTrue((self.set / "dolm-change.finish").exists())


class Examples(SetTest):
    EXAMPLES = Path(__file__).resolve().parents[2] / "examples"

    def test_a_batch_changes_each_set_as_a_whole_and_tells_of_the_others(self) -> None:
        sets = [self.copy(name) for name in ("one", "two", "three")]
        table = self.folder / "changes.csv"
        table.write_text("set,name,value\none,net/hostname,a\none,mca/serial,SN-1\n"
                         "two,net/hostname,b\ntwo,no/such,c\nthree,mca/serial,SN-3\n")
        run = subprocess.run([sys.executable, str(self.EXAMPLES / "batch.py"), str(table)], text=True,
                             capture_output=True, env=os.environ, check=False)
        self.assertEqual(run.returncode, 1)
        self.assertIn("two: ", run.stderr)
        self.assertEqual(self.dolm("get", sets[0], "mca/serial").stdout, "SN-1\n")
        self.assertEqual(self.dolm("get", sets[2], "mca/serial").stdout, "SN-3\n")
        self.assertTrue(all(filecmp.cmp(file, sets[1] / file.name)
                            for file in self.set.iterdir()))


if __name__ == "__main__":
    unittest.main()
