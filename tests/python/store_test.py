"""The package blobring on real stores, judged by hashlib, a dict and the files themselves."""

import array
import contextlib
import gc
import hashlib
import mmap
import os
import pathlib
import re
import resource
import signal
import tempfile
import threading
import time
import unittest

import blobring
from blobring import Hash, Store

HEADER = pathlib.Path(__file__).parents[2] / "include/blobring/blobring.h"
ABSENT = Hash(bytes(16))


def md5(data):
    return hashlib.md5(data).digest()


class StoreTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.path = pathlib.Path(directory.name)

    def store(self, **options):
        store = Store(self.path, **options)
        self.addCleanup(store.close)
        return store

    def test_gives_back_every_kind_of_buffer_through_a_life(self):
        page = mmap.mmap(-1, 4096)
        inputs = [b"", b"hello", bytearray(b"grows"), memoryview(b"a slice")[2:], page,
                  array.array("I", [1, 2, 3]), bytes(5_000_000)] + [b"%d" % i for i in range(600)]
        model = {md5(data): bytes(data) for data in inputs}
        with self.store() as store:
            self.assertEqual([store.put(data) for data in inputs[:4]], list(map(md5, inputs[:4])))
            self.assertEqual(store.put_many(iter(inputs)), list(map(md5, inputs)))
            for key in list(model)[3:9]:
                del store[key], model[key]
            store.discard(ABSENT)
            before = store.statistics()
            seen = []
            store.repack(lambda *step: seen.append(step))
            self.assertEqual(seen[-1], (len(model), len(model)))
            after = store.statistics()
            self.assertEqual((after.sequence, after.slot_count), (before.sequence + 1, 2))
            self.assertEqual((after.pack_bytes, after.live_bytes),
                             (before.repacked_bytes, sum(map(len, model.values()))))
        with self.store(must_exist=True, read_only=True) as store:
            store.check()
            self.assertEqual(list(store), sorted(model))
            self.assertEqual((dict(store), len(store)), (model, len(model)))
            self.assertEqual({key: store.size(key) for key in store},
                             {key: len(data) for key, data in model.items()})
            self.assertTrue(store.statistics().read_only)

    def test_a_hash_is_its_bytes_with_a_text(self):
        key = Hash.of(b"hello")
        self.assertEqual(str(key), "5d41402abc4b2a76b9719d911017c592")
        self.assertEqual({key: 1}[Hash.fromhex(str(key).upper())], 1)
        self.assertEqual(eval(repr(key)), md5(b"hello"))
        for wrong, error in (("5d41402abc4b2a76b9719d911017c592", TypeError), (16, TypeError),
                             (bytes(15), ValueError)):
            with self.assertRaises(error):
                Hash(wrong)

    def test_raises_the_error_of_each_failure_and_stays_usable(self):
        store = self.store()
        key = store.put(b"kept")
        empty = tempfile.mkdtemp(dir=self.path)

        def sparse(size):
            with open(self.path / "sparse", "wb+") as file:
                file.truncate(size)
                return mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ)

        def full():
            limits = resource.getrlimit(resource.RLIMIT_FSIZE)
            resource.setrlimit(resource.RLIMIT_FSIZE, (100_000, limits[1]))
            try:
                store.put(os.urandom(200_000))
            finally:
                resource.setrlimit(resource.RLIMIT_FSIZE, limits)

        for error, code, misuse in (
            (blobring.HeldError, 1, lambda: Store(self.path)),
            (blobring.FullError, 2, full),
            (blobring.NoStoreError, 6, lambda: Store(empty, must_exist=True)),
            (blobring.ArgumentError, 7, lambda: Store(empty, slots=2**32 + 2)),
            (blobring.ArgumentError, 7, lambda: Store(empty, slots=1, pack_directories=["a", "b"])),
            (blobring.ArgumentError, 7, lambda: store.transaction(2**63).__enter__()),
            (blobring.ArgumentError, 7, lambda: store.put(sparse(2**32 + 4))),
            (blobring.SystemCallError, 8, lambda: Store(self.path / "missing")),
            (blobring.RefusedError, 11, lambda: store.check(lambda *_: store[key])),
            (blobring.RefusedError, 11, lambda: store.repack(lambda *_: store.close())),
            (ValueError, None, lambda: Store(f"{self.path}\0x")),
            (KeyError, None, lambda: store[ABSENT]),
            (KeyError, None, lambda: store.__delitem__(ABSENT)),
            (ValueError, None, lambda: store[b"too short"]),
            (TypeError, None, lambda: store[str(key)]),
            (TypeError, None, lambda: store.put("text")),
            (BufferError, None, lambda: store.put(memoryview(b"abcd")[::2])),
        ):
            with self.subTest(error=error), self.assertRaises(error) as raised:
                misuse()
            self.assertEqual(getattr(raised.exception, "code", None), code)
            self.assertEqual(dict(store), {key: b"kept"})

        codes = re.findall(r"define BLOBRING_ERROR_(\w+) +(\d+)", HEADER.read_text())
        classes = {error.code for error in blobring.Error.__subclasses__()}
        self.assertEqual(classes, {int(code) for _, code in codes} - {0})

    def test_damage_never_looks_like_an_absent_blob(self):
        store = self.store()
        damaged, sound = store.put_many([b"damage me", b"sound"])
        journal = self.path / "0.jrn"
        journal.write_bytes(journal.read_bytes().replace(b"damage me", b"damaged!!"))
        for read in (lambda: store[damaged], store.check, lambda: store.get(damaged)):
            with self.assertRaises(blobring.DamagedError), self.assertLogs("blobring"):
                read()
        self.assertEqual(store[sound], b"sound")
        with self.assertRaises(blobring.DamagedError):
            store.repack()  # the library closes the store
        self.assertFalse(store.statistics().loaded)
        with self.assertRaises(blobring.ClosedError):
            len(store)

    def test_an_exception_abandons_the_transaction_alone(self):
        store = self.store()
        kept = store.put(b"kept")
        with self.assertRaises(ZeroDivisionError):
            with store.transaction(7):
                store.put_many([b"lost", b"lost too"])
                del store[kept]
                1 / 0
        self.assertEqual(store.statistics().pending_changes, 0)
        with store.transaction(-1):
            store.put(b"first")
            with self.assertRaises(blobring.RefusedError):
                store.transaction().__enter__()
            with self.assertRaises(TypeError):
                store.put_many([b"second", None])
            self.assertEqual(list(store), [kept])
        store.close()
        self.assertEqual(set(self.store().values()), {b"kept", b"first"})

    def test_a_closed_store_says_so(self):
        store = self.store()
        key = store.put(b"data")
        hashes = iter(store)
        transaction = store.transaction()
        transaction.__enter__()
        store.put(b"lost")
        store.close()
        store.close()
        for use in (lambda: store[key], lambda: key in store, lambda: len(store), store.check,
                    lambda: next(hashes), lambda: store.put(b""), store.repack, store.statistics,
                    lambda: store.discard(key), lambda: transaction.__exit__(None, None, None)):
            with self.assertRaises(blobring.ClosedError):
                use()
        forgotten = self.store()
        self._cleanups.pop()
        self.assertEqual(list(forgotten), [key])
        with self.assertWarns(ResourceWarning):
            del forgotten
            gc.collect()
        self.assertIn(key, self.store())

    def test_progress_that_raises_stops_and_changes_nothing(self):
        def stop(done, total):
            raise InterruptedError

        def press_control_c(done, total):
            signal.raise_signal(signal.SIGINT)

        # In a background job, it is ignored.
        before = signal.signal(signal.SIGINT, signal.default_int_handler)
        self.addCleanup(signal.signal, signal.SIGINT, before)
        with self.store() as store:
            hashes = store.put_many(b"%d" % i for i in range(1000))
            for call in (store.check, store.repack):
                for progress, error in ((stop, InterruptedError),
                                        (press_control_c, KeyboardInterrupt)):
                    with self.assertRaises(error):
                        call(progress)
            self.assertEqual(store.statistics().sequence, 0)
            threading.Timer(0.1, os.kill, (os.getpid(), signal.SIGINT)).start()
            until = time.monotonic() + 30
            with self.assertRaises(KeyboardInterrupt):
                while time.monotonic() < until:
                    store.check()
            store.check()
        try:
            self.fail(self.store(progress=stop))
        except InterruptedError:  # which keeps the object
            self.assertEqual(list(self.store()), sorted(hashes))

    def test_threads_share_a_store_and_open_others(self):
        store = self.store()
        errors = []

        def work(name):
            try:
                directory = self.path / name
                directory.mkdir()
                for i in range(20):
                    with Store(directory) as own:
                        own.put(b"%d" % i)
                    if i % 2 == 0:
                        store.put(f"{name} {i}".encode())
                        continue
                    with contextlib.suppress(InterruptedError), store.transaction():
                        store.put(f"{name} {i}".encode())
                        raise InterruptedError
            except BaseException as error:
                errors.append(error)

        names = [f"thread{k}" for k in range(4)]
        threads = [threading.Thread(target=work, args=(name,)) for name in names]
        with contextlib.suppress(InterruptedError), store.transaction():
            for thread in threads:
                thread.start()
            threads[0].join(0.2)
            self.assertEqual(len(store), 0)  # reads do not wait, changes do
            raise InterruptedError
        for thread in threads:
            thread.join(60)
        self.assertEqual(errors, [])
        committed = {f"{name} {i}".encode() for name in names for i in range(0, 20, 2)}
        self.assertEqual(set(store.values()), committed)


if __name__ == "__main__":
    unittest.main()
