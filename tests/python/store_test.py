"""The package blobring on real stores: a life against a dict, and what a dict does not have."""

import array
import asyncio
import concurrent.futures
import contextlib
import hashlib
import io
import mmap
import os
import pathlib
import random
import re
import resource
import signal
import subprocess
import sys
import tempfile
import unittest

import blobring
from blobring import Hash, Store

HEADER = pathlib.Path(__file__).parents[2] / "include/blobring/blobring.h"
SEED = int(os.environ.get("SEED", 1))
ABSENT = Hash(bytes(16))


class StoreTest(unittest.TestCase):
    def setUp(self):
        self.path = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def store(self, **options):
        return self.enterContext(Store(self.path, **options))

    def raises(self, error, *uses):
        for use in uses:
            with self.assertRaises(error):
                use()

    def test_lives_as_a_dict(self):
        print(f"SEED={SEED}")
        rng = random.Random(SEED)
        packs = [tempfile.mkdtemp(dir=self.path) for _ in range(2)]
        store = self.store(pack_directories=packs)
        model, repacks, seen = {store.put(b"first"): b"first"}, 0, []

        def change(now):
            """One change. `now` becomes what the store will hold once it is committed."""
            many = rng.choices((b"", b"again", rng.randbytes(9), rng.randbytes(5000)), k=5)
            grows, key = bytearray(many[0]), rng.choice([ABSENT, *sorted(model)[1:]])
            kind = rng.randrange(4)
            if kind == 0:
                data = rng.choice((many[0], grows, memoryview(b"no" + grows)[2:],
                                   array.array("H", many[0] * 2), mmap.mmap(-1, 4096)))
                file = io.BytesIO(b"skipped" + bytes(data))
                put = rng.choice((lambda: store.put(data),
                                  lambda: file.seek(7) and store.put_from(file)))
                self.assertEqual(put(), Hash.of(data))
                now[Hash.of(data)] = bytes(data)
                grows.append(0)  # the buffer is free again
            elif kind == 1:
                self.assertEqual(store.put_many(iter(many)), list(map(Hash.of, many)))
                now.update(zip(map(Hash.of, many), many))
            else:
                (store.__delitem__ if kind == 2 and key in model else store.discard)(key)
                store.discard_many(iter([key, ABSENT]))
                now.pop(key, None)

        for kind in rng.choices(range(8), k=150):
            if kind < 4:
                change(model)
            elif kind < 6:
                now, commits = dict(model), rng.randrange(2)
                with contextlib.suppress(ZeroDivisionError):
                    with store.transaction(rng.choice((-(2**63), 0, 2**63 - 1))):
                        for _ in range(rng.randrange(5)):
                            change(now)
                            self.assertEqual(list(store), sorted(model))
                        1 / commits
                    model = now
            elif kind == 6:
                repacks, expected = repacks + 1, store.statistics().repacked_bytes
                store.repack(lambda *step: seen.append(step))
                self.assertEqual(seen[-1], (len(model), len(model)))
                self.assertEqual(store.statistics().pack_bytes, expected)
            else:
                store.close()
                self.raises(blobring.ClosedError, store.check, store.repack, store.statistics,
                            lambda: store[ABSENT], lambda: ABSENT in store, lambda: len(store),
                            lambda: list(store), lambda: store.put(b""))
                with self.store(pack_directories=packs, read_only=True) as store:
                    store.check()
                    self.raises(blobring.ReadOnlyError, lambda: store.put(b""), store.repack)
                    self.assertTrue(store.statistics().read_only)
                    self.assertEqual((dict(store), len(store)), (model, len(model)))
                store = self.store(pack_directories=packs, must_exist=True,
                                   progress=lambda *step: seen.append(step))
                self.assertEqual(seen[-1], (store.statistics().journal_bytes,) * 2)
            sizes = {key: len(model[key]) for key in sorted(model)}
            self.assertEqual({key: store.size(key) for key in store}, sizes)
            self.assertEqual(list(store.get_many([ABSENT, *model])), [None, *model.values()])
            key, file, buffer = rng.choice(list(model)), io.BytesIO(), bytearray(10_000)
            self.assertEqual(store.copy_to(key, file), store.read_into(key, buffer))
            self.assertEqual(file.getvalue(), model[key])
            self.assertEqual(buffer, model[key].ljust(10_000, b"\0"))
            buffer.append(0)  # it is free again
            found = store.statistics()
            self.assertEqual((found.blob_count, found.live_bytes, found.sequence, found.slot_count),
                             (len(sizes), sum(sizes.values()), repacks, 2))
            self.assertFalse(found.pending_changes or found.damaged or found.read_only)
        self.assertGreater(min(repacks, len(model)), 9)
        self.assertEqual([os.listdir(pack) for pack in packs], [["0.pak"], ["1.pak"]])

    def test_raises_the_error_of_each_failure_and_stays_as_it_was(self):
        store = self.store()
        key = store.put(b"kept")
        self.assertEqual(str(key), hashlib.md5(b"kept").hexdigest())
        self.assertEqual(eval(repr(Hash.fromhex(str(key).upper()))), Hash.of(b"kept"))
        new = tempfile.mkdtemp(dir=self.path)
        huge = mmap.mmap(-1, 2**32 + 4, mmap.MAP_PRIVATE, mmap.PROT_READ)
        signal.signal(signal.SIGINT, signal.default_int_handler)  # background jobs ignore it

        def interrupt(*_):
            signal.raise_signal(signal.SIGINT)

        def full():
            limits = resource.getrlimit(resource.RLIMIT_FSIZE)
            self.addCleanup(resource.setrlimit, resource.RLIMIT_FSIZE, limits)
            resource.setrlimit(resource.RLIMIT_FSIZE, (100_000, limits[1]))
            signal.signal(signal.SIGXFSZ, signal.SIG_DFL)  # which would end the process
            store.put(bytes(200_000))

        class Changing(io.BytesIO):
            def seek(self, to):
                super().seek(to)
                self.write(b"other")
                super().seek(to)

        class Calling(io.BytesIO):
            def write(self, data):
                return len(store[key])

        for error, code, misuse in (
            (blobring.HeldError, 1, lambda: Store(self.path)),
            (FileNotFoundError, 6, lambda: Store(new, must_exist=True)),
            (FileNotFoundError, 12, lambda: Store(self.path / "missing")),
            (blobring.ArgumentError, 7, lambda: Store(new, slots=2**32 + 2)),
            (blobring.ArgumentError, 7, lambda: Store(new, slots=1, pack_directories=["a", "b"])),
            (blobring.ArgumentError, 7, lambda: store.transaction(2**63).__enter__()),
            (blobring.ArgumentError, 7, lambda: store.put(huge)),
            (OSError, 8, lambda: Store(self.path / ("x" * 300))),
            (blobring.RefusedError, 11, lambda: store.check(lambda *_: store[key])),
            (blobring.RefusedError, 11, lambda: store.repack(lambda *_: store.close())),
            (ZeroDivisionError, None, lambda: Store(new, progress=lambda *_: 1 / 0)),
            (ZeroDivisionError, None, lambda: Store(new, progress=lambda *_: 1 / 0)),  # not held
            (ZeroDivisionError, None, lambda: store.check(lambda *_: 1 / 0)),
            (KeyboardInterrupt, None, lambda: store.repack(interrupt)),
            (KeyboardInterrupt, None, interrupt),  # the handler is back
            (blobring.ArgumentError, 7, lambda: store.put_from(Changing(b"once"))),
            (blobring.ArgumentError, 7, lambda: store.read_into(key, bytearray(3))),
            (blobring.RefusedError, 11, lambda: store.copy_to(key, Calling())),
            (KeyError, None, lambda: store.copy_to(ABSENT, io.BytesIO())),
            (OSError, None, lambda: store.copy_to(key, self.enterContext(open(os.devnull, "rb")))),
            (TypeError, None, lambda: store.put_from(io.StringIO("text"))),
            (TypeError, None, lambda: store.read_into(key, b"kept")),
            (ValueError, None, lambda: Store(f"{self.path}\0x")),
            (KeyError, None, lambda: store[ABSENT]),
            (KeyError, None, lambda: store.__delitem__(ABSENT)),
            (ValueError, None, lambda: store[b"too short"]),
            (ValueError, None, lambda: store.discard(b"too short")),
            (TypeError, None, lambda: store[str(key)]),
            (TypeError, None, lambda: store[bytearray(key)]),
            (TypeError, None, lambda: store.put_many([b"not stored", "text"])),
            (BufferError, None, lambda: store.put(memoryview(b"abcd")[::2])),
            (blobring.FullError, 2, full),
        ):
            with self.subTest(error=error), self.assertRaises(error) as raised:
                misuse()
            self.assertEqual(getattr(raised.exception, "code", None), code)
            self.assertEqual((dict(store), store.statistics().sequence), ({key: b"kept"}, 0))
        codes = re.findall(r"define BLOBRING_ERROR_\w+ +([1-9]\d*)", HEADER.read_text())
        self.assertEqual(set(map(int, codes)), set(blobring.errors.BY_CODE))

    def test_a_transaction_has_the_changes_of_its_block_alone(self):
        store = self.store()
        kept = store.put(b"kept")

        def stray():
            self.raises(blobring.RefusedError, lambda: store.put(b"stray"), store.repack,
                        lambda: store.discard(kept), lambda: store.__delitem__(kept),
                        lambda: store.transaction().__enter__())

        def block(last=b"last"):
            with store.transaction():
                store.put(b"first")
                yield
                store.put(last)

        async def task():
            with contextlib.contextmanager(block)():
                await asyncio.sleep(0)
                store.put(b"task")

        async def tasks():
            other = asyncio.create_task(task())
            await asyncio.sleep(0)
            stray()
            await other

        self.raises(TypeError, lambda: [stray() for _ in block(None)])
        self.raises(TypeError, lambda: store.put_many(stray() for _ in range(1)))
        next(block())  # abandoned with its generator
        with store.transaction():
            del store[kept]
        asyncio.run(tasks())
        self.assertEqual(set(store.values()), {b"first", b"task", b"last"})
        for count, size in ((600, 1), (7, 2_000_000)):  # in steps of 256 blobs or 4 MiB
            blobs = (b"%*d" % (size, store.statistics().pending_changes) for _ in range(count))
            self.assertEqual(len(set(store.put_many(blobs))), 3)
        with self.assertRaises(blobring.ClosedError), store.transaction():
            store.close()

    def test_damage_never_looks_like_an_absent_blob(self):
        store = self.store(slots=1)
        damaged, sound = store.put_many([b"damage me", b"sound"])
        journal = self.path / "0.jrn"
        journal.write_bytes(journal.read_bytes().replace(b"damage me", b"damaged!!"))
        with self.assertLogs("blobring", "ERROR"):
            self.raises(blobring.DamagedError, lambda: store.get(damaged), store.check,
                        lambda: list(store.get_many([sound, damaged])))
        self.assertEqual(store[sound], b"sound")
        self.raises(blobring.DamagedError, store.repack)  # the library closes the store
        self.assertFalse(store.statistics().loaded)
        self.raises(blobring.ClosedError, lambda: len(store), lambda: sound in store)
        store.close()
        with self.assertWarns(ResourceWarning):
            self.assertEqual(list(Store(self.path, slots=1, erase_damaged=True)), [])
        self.store(slots=1)  # which is not held
        self.assertEqual(sorted(os.listdir(self.path)), ["0.jrn", "0.pak"])

    def test_the_library_outlives_the_interpreter(self):
        program = ("import blobring, ctypes;"
                   "ctypes.CDLL(None).on_exit(blobring._library.calls.BCDelete, 0)")
        self.assertEqual(subprocess.run([sys.executable, "-c", program]).returncode, 0)

    def test_threads_read_beside_one_that_changes(self):
        store = self.store()
        keys = store.put_many([b"deleted meanwhile" * 9000, b"read meanwhile", b""])
        copied = []

        class File:  # takes its first piece once everything else has been done
            def write(self, piece):
                if not copied:
                    thread.submit(everything_else).result(60)
                copied.append(bytes(piece))
                return len(piece)

        def everything_else():
            done = []
            store.check(lambda *now: done.append(now))
            self.assertEqual(done[-1], (3, 3))
            self.assertEqual(list(store), sorted(keys))
            self.assertEqual(list(store.get_many(keys[1:])), [b"read meanwhile", b""])
            del store[keys[0]]
            store.repack()
            self.assertRaises(KeyError, store.size, keys[0])
            with Store(tempfile.mkdtemp(dir=self.path)) as other:
                other.put(store[keys[1]])

        with concurrent.futures.ThreadPoolExecutor(1) as thread:
            self.assertEqual(store.copy_to(keys[0], File()), 153000)
        self.assertEqual(b"".join(copied), b"deleted meanwhile" * 9000)

    def test_threads_wait_for_each_other(self):
        store = self.store()

        def work(name):
            store.repack()
            for i in range(10):
                with Store(tempfile.mkdtemp(dir=self.path)) as own:
                    own.put(b"%d" % i)
                store.put(f"{name} {i}".encode())
                with contextlib.suppress(ZeroDivisionError), store.transaction():
                    store.put(b"lost")
                    1 / 0

        with concurrent.futures.ThreadPoolExecutor(4) as threads:
            with contextlib.suppress(ZeroDivisionError), store.transaction():
                store.put(b"lost")
                done = [threads.submit(work, name) for name in range(4)]
                concurrent.futures.wait(done, 0.2)  # time for what does not wait
                self.assertEqual(len(store), 0)  # reads do not wait
                1 / 0
        self.assertEqual([work.result() for work in done], [None] * 4)
        self.assertEqual(set(store.values()),
                         {f"{name} {i}".encode() for name in range(4) for i in range(10)})


if __name__ == "__main__":
    unittest.main()
