"""What the tool must say of a store, worked out from its bytes by docs/format.md and docs/json.md
alone; and how to write such bytes by hand. Only tool() runs the code under test. A key that --json
gets is added where its object is made below. A scenario is run as `SCENARIO.py TOOL CALLS`."""

import datetime
import difflib
import hashlib
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
from struct import pack, unpack_from

TOOL, CALLS = (os.path.abspath(argument) for argument in sys.argv[1:3])
PRELOADED = {"LD_PRELOAD": os.path.basename(CALLS), "LD_LIBRARY_PATH": os.path.dirname(CALLS)}  # it may have blanks
os.environ.update(LC_ALL="C.UTF-8", TZ="UTC")
MAX_FILE = 2**31 - 1
START, END = pack("<I", 2), pack("<I", 3)


def md5(data):
    return hashlib.md5(data).digest()


# ---- Files by hand


def store(id, data, hash=None):
    return pack("<iiq16sI", 0, 0, id, hash or md5(data), len(data)) + data


def delete(id, hash):
    return pack("<iiq16s", 1, 0, id, hash)


def begun(id):  # and not ended
    return START + pack("<iq24x", 0, id)


def transaction(id, *records, digest=None):
    body = b"".join(records)
    largest = max(0, *(len(record) - 36 for record in records), 0)
    return begun(id)[:16] + pack("<iI16s", largest, len(body), digest or md5(body)) + body + END + pack("<iq", 0, id)


def file(mode, sequence, *transactions, rest=b"", count=None, end=None):
    """mode 0 is a journal, 1 a pack."""
    body = b"".join(transactions)
    records = sum(2 + len(records_of(each, 40, len(each) - 16)[0]) for each in transactions)
    end = 24 + len(body) if end is None else end
    return pack("<IIIiII", 1024, records if count is None else count, mode, sequence, 1, end) + body + rest


def put_files(directory, **contents):
    """put_files("s", _0pak=bytes, …)"""
    for name, data in contents.items():
        pathlib.Path(directory, f"{name[1:-3]}.{name[-3:]}").write_bytes(data)


def change(path, offset, data=None):
    """Writes data there, or flips the bits of one byte."""
    with open(path, "r+b") as f:
        f.seek(offset)
        data = data or bytes([f.read(1)[0] ^ 0xFF])
        f.seek(offset)
        f.write(data)


SIZES = (0, 6, 35, 99, 5000, 700, 3, 2000, 64, 900)
BLOBS = [bytes([k]) + hashlib.shake_128(bytes([k])).digest(size) for k, size in enumerate(SIZES)]
HASHES = [md5(blob) for blob in BLOBS]
ID = 1795633959000000  # microseconds: 2026-11-25T19:12:39Z


def base(directory):
    """Slot 1 is current: blobs 0 to 5 in the pack; in the journal 6 to 9 are stored, 1 and 6 deleted, 1
    is stored again. Slot 0 is older."""
    tool("init", directory, status=0)
    stores = [store(ID + k, blob) for k, blob in enumerate(BLOBS)]
    journal = (transaction(ID + 6, *stores[6:8]), transaction(ID + 7, delete(ID + 7, HASHES[1])),
               transaction(ID + 8, *stores[8:], delete(ID + 8, HASHES[6])), transaction(ID + 11, store(ID + 11, BLOBS[1])))
    put_files(directory, _0jrn=file(0, 0, transaction(ID, stores[0]), transaction(ID + 5, *stores[1:6])),
              _1pak=file(1, 1, transaction(0, *stores[:6])), _1jrn=file(0, 1, *journal, rest=bytes(4096)))


# ---- Running the tool, and comparing


def fail(text):
    sys.exit(f"FAILED: {text}")


def tool(*arguments, stdin=b"", status=None, calls=None, **options):
    """calls: settings of calls.c for this run. status None: any that is documented."""
    if calls is not None:
        options["env"] = os.environ | PRELOADED | {key: str(value) for key, value in calls.items()}
    words = [a if isinstance(a, bytes) else os.fsencode(str(a)) for a in arguments]
    done = subprocess.run([TOOL, *words], input=stdin, capture_output=True, timeout=300, **options)
    done.out, done.err, done.status = done.stdout, done.stderr.decode(errors="replace"), done.returncode
    if done.status not in ((0, 1, 2, 3, 4) if status is None else [status]) and (calls is None or status is not None):
        fail(f"blobring {' '.join(map(str, arguments))}: status {done.status}, wanted {status}\n{done.err}")
    done.objects = [json.loads(line) for line in done.out.split(b"\n")[:-1]] if done.out.startswith(b'{"type"') else []
    return done


def same(got, wanted, what):
    """Compares two values whole, and shows the lines in which they differ."""

    def lines(value):
        if isinstance(value, dict):
            return list(map(str, value.items()))
        return [str(each) for each in (value if isinstance(value, (list, tuple)) else sorted(value) if isinstance(value, (set, frozenset)) else [value])]

    if got != wanted:
        fail(f"{what}\n" + "\n".join(difflib.unified_diff(lines(wanted), lines(got), "wanted", "got", lineterm="", n=1)))


def tree(directory):
    """Every file below it, with its bytes."""
    return {str(path.relative_to(directory)): path.read_bytes() for path in pathlib.Path(directory).rglob("*") if path.is_file()}


def scenario(*parts):
    """Runs the parts, each in an empty directory that goes away."""
    for part in parts:
        with tempfile.TemporaryDirectory() as directory:
            os.chdir(directory)
            try:
                part()
            except SystemExit as failure:
                sys.exit(f"{part.__name__}: {failure}" if failure.code != 77 else 77)
            finally:
                os.chdir("/")


# ---- Reading files


def records_of(data, at, end):
    """The records from there on, (offset, is_store, id, hash, size, sound), and where they break off."""
    found = []
    while end - at >= 32:
        op, _, id, hash = unpack_from("<iiq16s", data, at)
        size = unpack_from("<I", data, at + 32)[0] if op == 0 and end - at >= 36 else 0
        length = 36 + size if op == 0 else 32
        if op not in (0, 1) or length > end - at:
            break
        found.append((at, op == 0, id, hash, size, op == 1 or md5(data[at + 36 : at + length]) == hash))
        at += length
    return found, at


class File:
    """A pack or journal as a load reads it; or by its records, without their data."""

    def __init__(self, path, by_records=False):
        self.path, self.exists = str(path), os.path.exists(path)
        self.data = pathlib.Path(path).read_bytes() if self.exists else b""
        self.size = len(self.data)
        self.largest, self.count, self.mode, self.sequence, self.version, self.end_offset = unpack_from("<IIIiII", self.data.ljust(24, b"\0"))
        is_new = self.size <= 24 and not any(self.data) or self.size < 24 and any(file(m, 0).startswith(self.data) for m in (0, 1))
        is_sound = 24 <= self.end_offset <= self.size and self.count < 2**31
        self.state = "missing" if not self.exists else "new" if is_new else "sound" if is_sound else "damaged"
        if not self.exists:
            self.largest, self.version = 1024, 1
        # (offset, end, id, records) of each whole transaction, and of each record outside one, which has no id
        # there; where damage begins, and the one that it hit.
        self.transactions, self.end, self.damage, self.mismatched = [], 24, None, None
        left = self.count if self.state in ("sound", "damaged") else 0
        while left > 0:
            at = self.end
            if self.size - at < 40 or self.count >= 2**31:
                self.damage = at
                break
            id, length, digest = unpack_from("<q4xI16s", self.data, at + 8)
            end = at + 40 + length
            lone = records_of(self.data, at, self.size)[0][:1]
            if lone and lone[0][5]:
                self.end = at + (36 if lone[0][1] else 32) + lone[0][4]
                self.transactions.append((at, self.end, None, lone))
                left -= 1
                continue
            records, stop = records_of(self.data, at + 40, min(end, self.size))
            is_start = self.data.startswith(START, at)
            whole = is_start and stop == end and self.data.startswith(END, end) and length > 0
            is_compared = not by_records or length <= 2**16 and end + 16 >= self.end_offset
            if not whole or is_compared and md5(self.data[at + 40 : end]) != digest:
                self.damage = at if whole or not is_start or length == 0 or end > self.size else stop
                self.mismatched = (at, end + 16, id, records) if whole else None
                break
            self.transactions.append((at, end + 16, id, records))
            self.end = end + 16
            left -= len(records) + 2

    def records(self):
        return [record for each in self.transactions for record in each[3]]

    def is_sound(self, torn):
        return self.state in ("new", "sound") and (self.damage is None or torn)

    def counts_all(self):
        counted = sum(len(each[3]) + 2 * (each[2] is not None) for each in self.transactions)
        return self.state == "new" or self.state == "sound" and (self.count, self.end_offset) == (counted, self.end)

    def beyond(self):
        """Records behind damage: those that can be followed from there on."""
        found, at, stop = [], self.end, -1
        while at < self.end_offset and at != stop:
            if self.data[at : at + 4] in (START, END):
                at += 40 if self.data[at] == 2 else 16
                continue
            more, stop = records_of(self.data, at, min(self.end_offset, self.size))
            if stop == at and self.size - at >= 36 and self.data.startswith(bytes(4), at):  # one that is cut off
                more = [(at, True, *unpack_from("<q16sI", self.data, at + 8), False)]
            found += [r for r in more if any(r[3])]
            at, stop = stop, at
        return found

    def rest(self, at=None):
        """What lies behind the records: its kind and offset, the records in it, their state."""
        at = at or (self.end_offset if self.state == "sound" else self.end)
        next, found = at, []
        while self.data.startswith(START, next) and self.size >= next + 40:
            end = next + 40 + unpack_from("<I", self.data, next + 20)[0]
            is_ended = end > next + 40 and self.data.startswith(END, end)
            found.append(([r for r in records_of(self.data, next + 40, end if is_ended else self.size)[0] if any(r[3])], is_ended))
            next = end + 16 if is_ended else self.size
        if not any(self.data[at:]) or not found:
            return ("leftovers" if any(self.data[at:]) else "zeros", at, [], "") if at < self.size else None
        emptied = (self.end_offset, self.sequence) == (24, -1)
        if found[0][1] and (emptied or len(found) > 1):
            return "older_generation", at, [r for records, _ in found for r in records], "stale"
        kind = "uncommitted_transaction" if found[0][1] else "unfinished_repack" if emptied and self.mode else "unfinished_transaction"
        return kind, at, found[0][0], "uncommitted"


def time_of(id):
    for seconds in (id // 1000000, id // 1000, id):
        if 946684800 <= seconds < 4102444800:
            return datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ")


class View:
    """A store, or a single file, as every looking command must show it."""

    def __init__(self, path, slots=2, torn=False, by_records=False):
        self.path, self.torn, self.single, self.by_records = str(path), torn, os.path.isfile(path), by_records
        paths = [f"{path}/{k}.{kind}" for k in range(slots) for kind in ("pak", "jrn")] if not self.single else [path]
        self.files = [File(path, by_records) for path in paths]
        self.not_shown = []  # slots
        self.slot, self.sequence, self.current, self.walked, self.blobs = None, 0, [0], [0], {}  # blobs: (size, id, file, offset, sound)
        self.damaged = not self.files[0].is_sound(False) if self.single else self.choose()
        for index in self.current:
            for at, is_store, id, hash, size, sound in self.files[index].records():
                self.blobs.pop(hash, None)
                if is_store:
                    self.blobs[hash] = (size, id, index, at, sound)
        self.blobs = dict(sorted(self.blobs.items()))
        self.live = sum(blob[0] for blob in self.blobs.values())

    def seen(self):
        """What is shown without reading the data: all that adds up; else the same as always."""
        view = View(self.path, len(self.files) // 2, self.torn, by_records=True)
        return view if not view.damaged and all(view.files[k].counts_all() for k in view.walked) else self

    def choose(self):
        """The newest generation that can be loaded. Returns whether there is damage."""
        used = any(f.state == "damaged" or f.end_offset > 24 for f in self.files)
        damaged = used and any(not f.exists for f in self.files)
        self.current, self.walked = [], []
        damaged = damaged or any(self.swapped())
        packs = [k for k in range(0, len(self.files), 2) if self.files[k].exists]
        for index in sorted(packs, key=lambda k: -self.files[k].sequence):
            found = self.files[index]
            self.walked.append(index)
            if found.damage is None and (found.transactions or found.counts_all()):
                break
            damaged = True
            self.not_shown.append(index // 2)
        else:
            return True
        if found.sequence == -1:
            return True
        self.sequence, self.slot, self.current = found.sequence, found.sequence % (len(self.files) // 2), [index]
        for k in range(0, len(self.files), 2):
            elsewhere = k == 2 * self.slot != index
            if not elsewhere and (k not in self.walked or k == index) and self.is_lost(k, self.sequence):
                self.not_shown.append(k // 2)
        damaged = damaged or bool(self.not_shown)
        if self.files[2 * self.slot + 1].exists:
            self.current.append(2 * self.slot + 1)
            self.walked.append(2 * self.slot + 1)
            damaged = damaged or not self.torn and not self.files[self.current[1]].counts_all()
        return damaged

    def swapped(self):
        """Files whose sequence is another slot's."""
        slots = len(self.files) // 2
        return [f for k, f in enumerate(self.files) if f.state == "sound" and f.sequence > 0 and f.sequence % slots != k // 2]

    def is_lost(self, k, newest):
        """Whether the pack has lost its header, is empty where there was a repack, as its journal says, or
        has a sequence that no repacks can have given it."""
        pack, journal = self.files[k : k + 2]
        if pack.sequence < -1 or (newest - pack.sequence >= len(self.files) // 2 if pack.sequence > 0 else k and pack.sequence == 0 and pack.count):
            return True
        fresh = (pack.sequence, pack.count) == (0, 0)
        if "damaged" in (pack.state, journal.state):
            return pack.state == "damaged" or fresh and k != 0
        return journal.count != 0 and (journal.sequence > newest or fresh and journal.sequence == -1)

    def quick(self):
        """What the headers alone tell: the files at fault."""
        newest = max((f.sequence for f in self.files[::2] if f.state in ("sound", "new")), default=-1)
        lost = [f for k, f in enumerate(self.files) if k % 2 == 0 and f.state in ("sound", "new") and self.is_lost(k, newest)]
        return [f for f in self.files if f.state in ("damaged", "missing")] + self.swapped() + lost

    def others(self, *parts):
        names = os.listdir(self.path) if not self.single else []
        return sorted(f"{self.path}/{name}" for name in names if any(part in name for part in parts))

    def ls(self):
        return [dict(type="blob", hash=hash.hex(), size=size, transaction=id, file=self.files[index].path, offset=at)
                for hash, (size, id, index, at, _) in self.blobs.items()]

    def file(self, index):
        f = self.files[index]
        kind = ("journal", "pack")[f.mode == 1] if self.single else ("pack", "journal")[index % 2]
        return dict(type="file", path=f.path, slot=None if self.single else index // 2, kind=kind, current=index in self.current,
                    not_shown=index // 2 in self.not_shown, size=f.size, header=f.state, sequence=f.sequence, records=f.count, end_offset=f.end_offset)

    def stat(self):
        repacked = 24 + (56 + 36 * len(self.blobs) + self.live if self.blobs else 0)
        used = sum(self.files[k].end for k in self.current)
        classes = {}
        for size, *_ in sorted(self.blobs.values()):
            first = 1 << size.bit_length() - 1 if size else 0
            found = classes.setdefault(first, {"from": first, "to": max(2 * first - 1, 0), "blobs": 0, "bytes": 0})
            found["blobs"] += 1
            found["bytes"] += size
        aside = self.others(".kept-")
        emptied = [f.path for f in self.files[::2] if f.sequence == -1 and f.size > 24 and not self.single]
        stat = dict(type="stat", store=self.path, slots=0 if self.single else len(self.files) // 2, current=self.slot, sequence=self.sequence,
                    blobs=len(self.blobs), live_bytes=self.live, dead_bytes=used - min(used, repacked + 24),
                    disk_bytes=sum(f.size for f in self.files) + sum(map(os.path.getsize, aside)),
                    unused_bytes=sum(f.size - f.end_offset for f in self.files if f.state == "sound"),
                    journal_bytes=self.files[self.current[1]].end if len(self.current) == 2 else 0, repacked_bytes=repacked,
                    repack_fits=True, max_file_bytes=MAX_FILE, damaged=self.damaged, digests_compared=not self.by_records, findings=self.damaged, open_in=[], set_aside=aside,
                    unfinished_repacks=sorted(emptied + self.others(".pak.new")), sizes=list(classes.values()))
        return [stat, *map(self.file, range(len(self.files)))]

    def inspect(self):
        """Of `inspect --records`."""
        return [o for f in [*self.files, *map(File, self.others(".kept-", ".pak.new"))] for o in self.inspect_file(f)]

    def inspect_file(self, f):
        def transaction(offset, end, id, records, digest):
            stores = [r[4] for r in records if r[1]]
            return dict(type="transaction", file=f.path, offset=offset, id=id, time=time_of(id), stores=len(stores),
                        deletes=len(records) - len(stores), bytes=end - offset, blob_bytes=sum(stores), digest=digest)

        def record(r, state):
            return dict(type="record", file=f.path, offset=r[0], op="store" if r[1] else "delete", id=r[2], hash=r[3].hex(), size=r[4], state=state)

        yield dict(type="file", path=f.path, kind="pack" if f.mode == 1 else "journal", size=f.size, header=f.state, sequence=f.sequence,
                   records=f.count, max_blob_size=f.largest, version=f.version, end_offset=f.end_offset)
        for each in f.transactions:
            if each[2] is not None:
                yield transaction(*each, "ok")
            yield from (record(r, "committed") for r in each[3])
        if f.mismatched:
            yield transaction(*f.mismatched, "wrong")
        if f.damage is not None:
            beyond = [r for r in f.beyond() if r[1] or not f.mismatched or r[0] > f.mismatched[1]]
            yield from (record(r, "sound" if r[5] else "damaged") for r in beyond)
            yield dict(type="damage", file=f.path, offset=f.damage, torn=self.torn, sound_beyond=sum(r[5] for r in beyond))
        rest = f.rest() if f.state == "sound" or f.state == "damaged" and f.damage is None else None
        if rest:
            yield from (record(r, rest[3]) for r in rest[2])
            yield dict(type="rest", file=f.path, offset=rest[1], size=f.size - rest[1], kind=rest[0])

    def log(self, since=-1):
        """Of `log -p`."""
        objects = []
        for offset, _, id, records in reversed(self.files[self.current[-1]].transactions if self.current else []):
            stores = [r[4] for r in records if r[1]]
            if id is not None and id > since:
                objects.append(dict(type="transaction", id=id, time=time_of(id), offset=offset, added=len(stores),
                                    removed=len(records) - len(stores), blob_bytes=sum(stores)))
                objects += [dict(type="change", transaction=id, change="added" if r[1] else "removed", hash=r[3].hex(), **({"size": r[4]} if r[1] else {}))
                            for r in records]
        return objects

    def faults(self, blobs_too=True):
        found = [(self.files[2 * slot].path, 0, None, 0) for slot in self.not_shown]
        found += [(f.path, 0, None, 0) for f in map(File, self.others(".kept-")) if any(r[1] and r[3] not in self.blobs for r in f.records()) or not f.records() and f.size > 24 + 2**16]
        for f in (self.files[index] for index in sorted(self.walked)):
            if f.damage is not None and not self.torn:
                hit = [(f.path, r[0], r[3].hex(), r[4]) for r in f.beyond() if r[0] >= f.damage and not r[5]]
                found += hit or [(f.path, f.damage, None, 0)]
        blobs = self.blobs.items() if blobs_too else ()
        return sorted(found + [(self.files[index].path, at, hash.hex(), size) for hash, (size, _, index, at, sound) in blobs if not sound])

    def check(self, blobs_too=True):
        faults = self.faults(blobs_too)
        return [*(dict(type="fault", file=path, offset=at, hash=hash, size=size) for path, at, hash, size in faults),
                dict(type="check", store=self.path, blobs=len(self.blobs), live_bytes=self.live, blobs_read=blobs_too,
                     faults=len(faults), sound=not faults and not self.damaged)]


def plain(objects):
    """Objects without prose, which may change; whether there are findings may not. Faults have no order."""
    objects = [{key: bool(value) if key == "findings" else value for key, value in each.items() if key != "what"} for each in objects]
    return sorted(objects, key=lambda o: (o["type"] == "fault" and (o["file"], o["offset"])) or ("\U0010ffff", 0))


def spelled(objects):
    """With paths as JSON has them."""
    return json.loads(json.dumps(objects, ensure_ascii=False).encode("utf-8", "surrogateescape").decode("utf-8", "replace"))


def look(view, *arguments):
    """Every looking command that prints JSON says of the store just what the model says, and changes nothing."""
    check, structure, seen = view.check(), view.check(False), view.seen()
    before = tree(view.path)
    for command, wanted, status in (
        (["ls"], seen.ls(), seen.damaged),
        (["stat"], seen.stat(), seen.damaged),
        (["log", "-p"], view.log(), view.damaged),
        (["inspect", "--records"], view.inspect(), not all(f.is_sound(view.torn) for f in [*view.files, *map(File, view.others(".kept-"))])),
        (["check"], check, not check[-1]["sound"]),
        (["check", "--structure"], structure, not structure[-1]["sound"]),
    ):
        got = tool(*command, "--json", view.path, *(arguments if command[0] != "inspect" else ()))
        what = f"{' '.join(command)} of {view.path}\n{got.err}"
        same(plain(got.objects), spelled(wanted), what)
        same(got.status, int(status), f"status of {what}")
    same(tree(view.path) == before, True, f"a look changed {view.path}")
