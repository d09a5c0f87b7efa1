"""What every command says and does of stores that are damaged: exactly what is lost is named and not
given out, the rest is, and nothing that could be had before is gone afterwards.

A row of DAMAGE goes through every command, and through the report: a name, what is done to the store
of model.base() in "s", and what the model cannot tell from the bytes: "torn", if a power cut can have
left it (no damage then); "salvage", the status of a salvage where the files of the slots do not tell."""

from model import *

WRONG = md5(b"another")  # of no blob
CONTENTS = dict(zip(HASHES, BLOBS))


def zero(path, begin, end):
    change(path, begin, bytes(end - begin))


def swap(a, b):
    os.rename(a, "t")
    os.rename(b, a)
    os.rename("t", b)


def flip(path, blob, offset):  # from where the blob's data begins
    change(path, pathlib.Path(path).read_bytes().index(blob) + offset)


def wrong_hashes():
    """Blobs that do not match their hashes, in transactions that match their digests."""
    stores = [store(ID, BLOBS[0]), store(ID, BLOBS[4], HASHES[5]), store(ID, BLOBS[3], HASHES[3])]
    journal = file(0, 1, transaction(ID, store(ID, bytes(5 << 20), WRONG)), transaction(ID + 1, store(ID + 1, BLOBS[8])))
    put_files("s", _1pak=file(1, 1, transaction(0, *stores)), _1jrn=journal)


def large(*damage):
    """Damage to a pack of which a look reads the records alone."""
    stores = [store(ID + k, blob) for k, blob in enumerate(BLOBS[:6])]
    put_files("s", _1pak=file(1, 1, transaction(0, *stores, store(ID, bytes(70000), WRONG))))
    flip("s/1.pak", BLOBS[4], *damage)


def zero_last():
    zero("s/1.jrn", *File("s/1.jrn").transactions[-1][:2])


def torn_commit():
    """The last of many commits is zeros, as a power cut can leave it."""
    put_files("s", _1jrn=file(0, 1, *(transaction(ID + n, store(ID + n, BLOBS[8])) for n in range(34))))
    zero_last()


def lone_record():
    records = transaction(ID, store(ID, BLOBS[6])) + store(ID + 1, BLOBS[7]) + transaction(ID + 2, store(ID + 2, BLOBS[8]))
    put_files("s", _1jrn=file(0, 1, rest=records, count=7, end=24 + len(records)))


def put_journal(tail, head=b""):
    """The journal's records behind another header, and what follows them: made of the last of them."""
    journal = File("s/1.jrn")
    begin, end, *_ = journal.transactions[-1]
    put_files("s", _1jrn=(head or journal.data[:24]) + journal.data[24:end] + tail(journal.data[begin:end]))


STARTED = begun(5) + store(5, BLOBS[6])

DAMAGE = (
    ("nothing", lambda: None, {}),
    ("a blob of the pack", lambda: flip("s/1.pak", BLOBS[4], 100), {}),
    ("a blob of a large pack", lambda: large(100), {}),
    ("a hash in a large pack", lambda: large(-10), {}),
    ("a hash in the pack", lambda: flip("s/1.pak", BLOBS[4], -10), {}),
    ("a blob of the journal", lambda: flip("s/1.jrn", BLOBS[7], 100), {}),
    ("a digest in the journal", lambda: change("s/1.jrn", 50), {}),
    ("the older journal", lambda: change("s/0.jrn", 50), {}),
    ("the last commit lost", zero_last, {}),
    ("the last commit torn", torn_commit, {"torn": True, "salvage": 0}),
    ("the newest pack's header", lambda: zero("s/1.pak", 0, 24), {}),
    ("the newest pack's end offset", lambda: change("s/1.pak", 23), {}),
    ("the journal's header", lambda: change("s/1.jrn", 0, b"\xff" * 24), {}),
    ("the journal's count", lambda: change("s/1.jrn", 4, b"\xff\xff\xff\x7f"), {}),
    ("the newest pack's sequence, now 0", lambda: change("s/1.pak", 12, b"\0"), {}),
    ("the newest pack's sequence, now negative", lambda: change("s/1.pak", 15, b"\x80"), {}),
    ("the sequence of a pack that was not used yet", lambda: change("s/0.pak", 12, b"\x80"), {}),
    ("the newest pack lost", lambda: os.remove("s/1.pak"), {}),
    ("a newest pack cut to nothing that its journal does not name", lambda: [os.truncate("s/1.pak", 0), change("s/1.jrn", 12, b"\xff" * 4)], {}),
    ("the packs swapped", lambda: swap("s/0.pak", "s/1.pak"), {}),
    ("all swapped", lambda: [swap("s/0.pak", "s/1.pak"), swap("s/0.jrn", "s/1.jrn")], {}),
    ("a deleted blob set aside", lambda: shutil.copy("s/1.jrn", "s/1.jrn.kept-1"), {}),
    ("zeros set aside", lambda: pathlib.Path("s/1.jrn.kept-1").write_bytes(file(0, 1, end=90000) + bytes(70000)), {"salvage": 1}),
    ("the pack cut", lambda: os.truncate("s/1.pak", 3000), {}),
    ("the journal lost", lambda: os.remove("s/1.jrn"), {}),
    ("the older journal lost", lambda: os.remove("s/0.jrn"), {}),
    ("the journal cut", lambda: os.truncate("s/1.jrn", 1000), {}),
    ("no pack", lambda: put_files("s", _0pak=b"\xff" * 100, _1pak=b"\xff" * 100), {}),
    ("wrong hashes", wrong_hashes, {}),
    ("a lone record between transactions", lone_record, {}),
    # Sound, with something behind the records that count, or with a repack that has begun.
    ("bytes behind the end", lambda: put_journal(lambda last: b"\7" * 100), {}),
    ("an unfinished transaction", lambda: put_journal(lambda last: STARTED + bytes(30)), {}),
    ("an unfinished transaction that was whole", lambda: put_journal(lambda last: last[:-20]), {}),
    ("an uncommitted transaction", lambda: put_journal(lambda last: last), {}),
    ("transactions of an older generation", lambda: put_journal(lambda last: last + last), {}),
    ("an emptied journal", lambda: put_journal(lambda last: b"", file(0, -1)), {}),
    ("a repack begun", lambda: put_files("s", _0pak=file(1, -1) + STARTED), {}),
    ("one that is all but done", lambda: put_files("s", _0pak=file(1, -1) + transaction(0, store(0, BLOBS[0]))), {}),
    ("one that left no record", lambda: put_files("s", _0pak=file(1, -1) + bytes(500)), {}),
    ("one with its end offset", lambda: put_files("s", _0pak=file(1, -1, end=109) + STARTED), {}),
    ("files set aside", lambda: [shutil.copy("s/0.jrn", "s/0.jrn.kept-1"), pathlib.Path("s/notes").write_text("mine")], {}),
)


def renew(damage):
    for name in os.listdir("."):
        shutil.rmtree(name) if os.path.isdir(name) else os.remove(name)
    base("s")
    damage()


def recoverable():
    """The blobs whose records are in the store's files, wherever."""
    files = [data for name, data in tree("s").items() if ".pak" in name or ".jrn" in name]
    return {hash for hash, blob in CONTENTS.items() if any(store(0, blob)[16:] in data for data in files)}


def shown(store):
    return {bytes.fromhex(o["hash"]) for o in tool("ls", "--json", store).objects}


def answers(view, hashes):
    """The view that gives these out: it reads all if one of them is not there as its hash says."""
    seen = view.seen()
    return seen if all(hash in seen.blobs and seen.blobs[hash][4] for hash in hashes) else view


def batch(hashes, status=None):
    """Pairs of what `get --batch` answers with and without the blob."""
    return tool("get", "s", "--batch", stdin="".join(f"{hash.hex()}\n" for hash in hashes).encode(), status=status).out


def manifest(name, hashes):
    pathlib.Path(name).write_text("".join(f"{hash.hex()}  f{hash.hex()}\n" for hash in hashes))


def every_command():
    for name, damage, options in DAMAGE:
        renew(damage)
        view, before = View("s", torn=options.get("torn", False)), tree("s")
        try:
            gives_out(view)
            is_clean = not view.damaged and all(blob[4] for blob in view.blobs.values()) and all(f.is_sound(view.torn) for f in view.files)
            tool("salvage", "s", "salvaged", status=options.get("salvage", int(not is_clean)))
            same(shown("salvaged"), recoverable(), "salvage")
            tool("check", "salvaged", status=0)
            same(tree("s") == before, True, "a command that looks changed the store")
            keeps(view)
        except SystemExit as failure:
            sys.exit(f"{name}: {failure}")


def gives_out(view):
    look(view)
    faulty = int(view.damaged or not all(blob[4] for blob in view.blobs.values()))
    sound = {hash for hash, blob in view.blobs.items() if blob[4]}
    verdicts = {hash: "ok" if hash in sound else "damaged" if hash in view.blobs else "missing" for hash in [*HASHES, WRONG]}
    headers = [f.path for f in view.quick()]
    same([o["file"] for o in tool("check", "--quick", "--json", "s", status=int(bool(headers))).objects], headers, "check --quick")
    words = (b"%d\n%s" % (len(CONTENTS[hash]), CONTENTS[hash]) if word == "ok" else word.encode() for hash, word in verdicts.items())
    wanted = b"".join(b"%s %s\n" % (hash.hex().encode(), answer) for hash, answer in zip(verdicts, words))
    same(batch(verdicts, faulty).split(b"\n"), wanted.split(b"\n"), "get --batch")
    for word, hash in {word: hash for hash, word in verdicts.items()}.items():
        status = 1 if answers(view, [hash]).damaged or word == "damaged" else 0 if word == "ok" else 4
        same(tool("get", "s", hash.hex(), status=status).out, CONTENTS[hash] if word == "ok" else b"", "get")
    manifest("all", verdicts)
    manifest("good", sound)
    got = tool("verify", "s", "all", "--json", status=1 if faulty else 4)
    same([(o["name"], o["hash"], o["verdict"]) for o in got.objects], [(f"f{h.hex()}", h.hex(), word) for h, word in verdicts.items()], "verify")
    if sound:
        tool("export", "s", "good", "out", status=int(answers(view, sound).damaged))
    tool("export", "s", "all", "out", "--force", status=1)
    same(tree("out"), {f"f{hash.hex()}": CONTENTS[hash] for hash in sound}, "export")
    for command, hashes in (("copy", [hash.hex() for hash in view.blobs]), ("sync", [])):
        tool("init", command, status=0)
        if hashes or command == "sync":
            tool(command, "s", command, *hashes, status=faulty)
        same(shown(command), sound, command)
    got = tool("diff", "s", "copy", "--json", status=int(view.damaged or sound != set(view.blobs)))
    same([(o["only_in"], o["hash"]) for o in got.objects], [("a", h.hex()) for h in view.blobs if h not in sound], "diff")


def keeps(view):
    """A damaged store is not changed at once, and what could be had before can be had afterwards."""
    sound = {hash for hash, blob in view.blobs.items() if blob[4]}
    found = recoverable() if view.damaged else sound  # a repack leaves the rest behind
    for number, command in enumerate((["put", "s", "-"], ["import", "s", "out"], ["repack", "s"], ["put", "s", "-"])):
        got = tool(*command, stdin=b"new")
        same((got.status, got.out) if view.damaged and number == 0 else (1, b""), (1, b""), f"{command} of a damaged store")
        same(found - recoverable(), set(), f"{command}: what a salvage cannot find any more")
        if got.status == 0 and command[0] == "put":
            same(tool("get", "s", md5(b"new").hex()).out, b"new", "what was acknowledged")
        answers = batch(sound)
        same({h for h in sound if b"%d\n%s\n" % (len(CONTENTS[h]), CONTENTS[h]) not in answers}, set(), f"{command}: what was there before")


# What a salvage takes and leaves of a store with one older file less; with --live-only, a blob in doubt is live.
def salvage_rows():
    def more(digest=None, is_counted=True):  # a commit that deletes blob 4
        journal, data = File("s/1.jrn"), transaction(ID + 20, delete(ID + 20, HASHES[4]), digest=digest)
        head = file(0, 1, count=journal.count + 3 * is_counted, end=journal.end + len(data) * is_counted)
        pathlib.Path("s/1.jrn").write_bytes(head + journal.data[24 : journal.end] + data)

    def looks_like_records():  # at every 36th byte, with a hash that no data has
        data = b"gap" + (bytes(16) + b"abcdefghijklmnop" + pack("<I", 1 << 21)) * 65536 + bytes(3000000)
        put_files("s", _0jrn=file(0, 0, count=3, end=24 + len(data)) + data)

    six, four, pak = HASHES[6], HASHES[4], "s/1.pak"  # six is not live
    at = 24 + 40 + sum(36 + len(blob) for blob in BLOBS[:4]) + 36  # where the data of blob 4 begins
    block = {"READ_FILE": pak, "READ_AT": at // 4096 * 4096, "READ_DO": "fail"}
    for name, damage, left, live, calls in (
        ("nothing", lambda: None, {six}, True, None),
        ("a commit", more, {six, four}, True, None),
        ("a commit that did not reach the header", lambda: more(is_counted=False), {six}, True, None),
        ("a commit that does not match its digest", lambda: more(digest=bytes(16)), {six}, True, None),
        ("the newest pack lost", lambda: os.truncate(pak, 0), set(), True, None),
        ("the newest pack without a header", lambda: zero(pak, 0, 24), set(), True, None),
        ("a blob of the newest pack damaged", lambda: flip(pak, BLOBS[4], 100), {six}, True, None),
        ("the packs swapped", lambda: swap("s/0.pak", pak), set(), True, None),
        ("the journal set aside", lambda: pathlib.Path("s/1.jrn.kept-1").write_bytes(file(0, 1, transaction(ID, store(ID, BLOBS[6])))), set(), True, None),
        ("the same pack set aside", lambda: shutil.copy(pak, "s/1.pak.kept-1"), {six}, True, None),
        ("a sequence that does not agree", lambda: change(pak, 12, b"\4\0\0\0"), set(), True, None),
        ("a record's head", lambda: flip(pak, BLOBS[2], -36), {HASHES[2]}, False, None),
        ("a record's size", lambda: flip(pak, BLOBS[2], -3), {HASHES[2]}, False, None),
        ("places that look like records", looks_like_records, set(), False, None),
        ("a block that cannot be read", lambda: None, {HASHES[0], HASHES[2], HASHES[3], four}, False, block),
        ("a blob that is read otherwise the second time", lambda: None, {four}, False, {**block, "READ_DO": "rot", "READ_AT": at + 10}),
    ):
        renew(lambda: None if live else os.remove("s/0.jrn"))  # which has blobs 0 to 5 as well
        damage()
        got = tool("salvage", "s", "out", *(["--live-only"] if live else []), calls=calls, status=None if live else 1)
        same(shown("out"), set(HASHES) - left, f"salvage, {name}\n{got.out.decode()}")
        tool("check", "out", status=0)


if __name__ == "__main__":
    scenario(salvage_rows, every_command)
