"""The Python package on a real store: python3 store_test.py, with BLOBRING_LIBRARY set."""

import hashlib
import os
import pathlib
import tempfile
import threading
import unittest

import blobring


class StoreTest(unittest.TestCase):
    def setUp(self) -> None:
        holder = tempfile.TemporaryDirectory()
        self.addCleanup(holder.cleanup)
        self.directory = pathlib.Path(holder.name)
        self.store = blobring.Store(self.directory)
        self.addCleanup(self.store.close)

    def test_a_life(self) -> None:
        blobs = [b"", b"abc", bytes(100_000)]
        for form in (bytes, bytearray, memoryview, lambda blob: memoryview(b"x" + blob)[1:]):
            for blob in blobs:
                key = self.store.put(form(blob))
                self.assertEqual(str(key), hashlib.md5(blob).hexdigest())
                self.assertEqual(key, blobring.Hash.of(form(blob)))
        self.assertEqual(self.store.put_many(blobs), [blobring.Hash.of(blob) for blob in blobs])
        self.assertEqual(list(self.store), sorted(map(blobring.Hash.of, blobs)))
        self.assertEqual(dict(self.store), {blobring.Hash.of(blob): blob for blob in blobs})
        self.assertEqual([self.store[str(key)] for key in self.store], list(self.store.values()))
        del self.store[blobring.Hash.of(b"abc")]
        self.assertNotIn(blobring.Hash.of(b"abc"), self.store)
        self.assertTrue(self.store.repack())
        self.assertIs(self.store.check(), blobring.Checked.SOUND)
        self.store.close()
        with blobring.Store(self.directory, read_only=True) as again:
            self.assertEqual((len(again), again.statistics().sequence, again.statistics().live_bytes), (2, 1, 100_000))

    def test_an_exception_takes_the_whole_transaction(self) -> None:
        kept = self.store.put(b"kept")
        with self.assertRaises(ZeroDivisionError), self.store.transaction():
            gone = self.store.put(b"gone")
            del self.store[kept]
            raise ZeroDivisionError
        self.assertNotIn(gone, self.store)
        self.assertEqual(self.store[kept], b"kept")
        with self.store.transaction(7):
            self.assertEqual(self.store.statistics().pending_changes, 0)
            self.store.put(b"stays")
            with self.assertRaises(blobring.RefusedError), self.store.transaction():
                pass
        self.assertIn(blobring.Hash.of(b"stays"), self.store)

    def test_errors(self) -> None:
        self.store.put(b"x")
        closed = blobring.Store(self.enterContext(tempfile.TemporaryDirectory()))
        closed.close()
        closed.close()
        read_only = self.enterContext(tempfile.TemporaryDirectory())
        blobring.Store(read_only).close()
        reader = blobring.Store(read_only, read_only=True)
        self.addCleanup(reader.close)
        rows = [
            (KeyError, lambda: self.store[bytes(16)]),
            (KeyError, lambda: self.store.__delitem__("00" * 16)),
            (ValueError, lambda: self.store["00"]),
            (ValueError, lambda: blobring.Hash("zz" * 16)),
            (ValueError, lambda: self.store.put(memoryview(b"abcd")[::2])),
            (blobring.HeldError, lambda: blobring.Store(self.directory)),
            (blobring.NoStoreError, lambda: blobring.Store(self.directory / "none", must_exist=True)),
            (blobring.ArgumentError, lambda: blobring.Store(self.directory, slots=3, pack_directories=["a"])),
            (blobring.ReadOnlyError, lambda: reader.put(b"x")),
            *((blobring.ClosedError, call) for call in (
                lambda: closed.put(b"x"), lambda: list(closed), lambda: len(closed), closed.check, closed.repack,
                lambda: closed[bytes(16)], lambda: closed.transaction().__enter__())),
        ]
        for number, (error, call) in enumerate(rows):
            with self.subTest(row=number), self.assertRaises(error):
                call()

    def test_damage_is_no_missing_key(self) -> None:
        key = self.store.put(b"to be damaged")
        with open(self.directory / "0.jrn", "r+b") as journal:
            at = journal.read().index(b"damaged")
            journal.seek(at)
            journal.write(b"D")
        with self.assertRaises(blobring.DamagedError):
            self.store[key]
        self.assertIs(self.store.check(), blobring.Checked.FAULTY)

    def test_progress(self) -> None:
        self.store.put_many(str(i).encode() for i in range(1000))
        seen: list[tuple[int, int]] = []
        self.store.check(lambda operation, done, total: seen.append((done, total)))
        self.assertEqual(seen[-1], (1000, 1000))
        self.assertIs(self.store.check(lambda *_: False), blobring.Checked.STOPPED)
        self.assertFalse(self.store.repack(lambda *_: False))
        with self.assertRaises(KeyboardInterrupt):
            def interrupt(*_: object) -> None:
                raise KeyboardInterrupt
            self.store.repack(interrupt)
        self.assertEqual(len(self.store), 1000)
        self.assertTrue(self.store.repack())

    def test_threads_wait_for_each_other(self) -> None:
        def work(name: str) -> None:
            for i in range(50):
                with self.store.transaction():
                    self.store.put(f"{name} {i}".encode())
                    self.store.put(f"{name} {i} too".encode())
        threads = [threading.Thread(target=work, args=(name,)) for name in "abcd"]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(len(self.store), 400)

    def test_a_child_of_fork_changes_nothing(self) -> None:
        child = os.fork()
        if child == 0:
            try:
                self.store.put(b"from the child")
            except blobring.Error:
                os._exit(7)
            os._exit(0)
        self.assertEqual(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]), 7)
        self.assertEqual(len(self.store), 0)
        self.store.put(b"from the parent")


if __name__ == "__main__":
    unittest.main()
