"""What every command says and does of stores that are damaged: exactly what is lost is named and not
given out, the rest is, and nothing that could be had before is gone afterwards.

A row of DAMAGE is a name, what is done to the store of model.base() in "s", and what the model does
not tell from the bytes: "torn", if a power cut can have left it (no damage then), "salvage", a status
that is not 1 although there is damage. Each goes through every command, and through the report."""

from model import *

WRONG = md5(b"another")  # of no blob


def zero(path, begin, end):
    change(path, begin, bytes(end - begin))


def last(path):
    return File(path).transactions[-1][:2]


def data_of(path, blob):
    return pathlib.Path(path).read_bytes().index(blob)


def wrong_hashes():
    """Blobs that do not match their hashes, in transactions that match their digests."""
    stores = [store(ID, BLOBS[0]), store(ID, BLOBS[4], HASHES[5]), store(ID, BLOBS[3], HASHES[3])]
    put_files("s", _1pak=file(1, 1, transaction(0, *stores)),
              _1jrn=file(0, 1, transaction(ID, store(ID, bytes(5 << 20), WRONG)), transaction(ID + 1, store(ID + 1, BLOBS[8]))))


def no_pack():
    for k in (0, 1):
        pathlib.Path(f"s/{k}.pak").write_bytes(b"\xff" * 100)


DAMAGE = (
    ("nothing", lambda: None, {}),
    ("a blob of the pack", lambda: change("s/1.pak", data_of("s/1.pak", BLOBS[4]) + 100), {}),
    ("a hash in the pack", lambda: change("s/1.pak", data_of("s/1.pak", BLOBS[4]) - 10), {}),
    ("a blob of the journal", lambda: change("s/1.jrn", data_of("s/1.jrn", BLOBS[7]) + 100), {}),
    ("a digest in the journal", lambda: change("s/1.jrn", 50), {}),
    ("the older journal", lambda: change("s/0.jrn", 50), {}),
    ("the last commit torn", lambda: zero("s/1.jrn", *last("s/1.jrn")), {"torn": True}),
    ("the newest pack's header", lambda: zero("s/1.pak", 0, 24), {}),
    ("the newest pack's end offset", lambda: change("s/1.pak", 23), {}),
    ("the journal's header", lambda: change("s/1.jrn", 0, b"\xff" * 24), {}),
    ("the journal's count", lambda: change("s/1.jrn", 4, b"\xff\xff\xff\x7f"), {}),
    ("the newest pack lost", lambda: os.remove("s/1.pak"), {}),
    ("the newest pack cut to nothing", lambda: os.truncate("s/1.pak", 0), {"salvage": 0}),
    ("the pack cut", lambda: os.truncate("s/1.pak", 3000), {}),
    ("the journal lost", lambda: os.remove("s/1.jrn"), {}),
    ("the older journal lost", lambda: os.remove("s/0.jrn"), {}),
    ("the journal cut", lambda: os.truncate("s/1.jrn", 1000), {}),
    ("no pack", no_pack, {}),
    ("wrong hashes", wrong_hashes, {}),
    ("files set aside", lambda: [shutil.copy("s/0.jrn", "s/0.jrn.kept-1"), pathlib.Path("s/notes").write_text("mine")], {}),
)


def recoverable(directory, blobs):
    """Those whose records are there, wherever."""
    files = [data for name, data in tree(directory).items() if ".pak" in name or ".jrn" in name]
    wanted = {hash: hash + pack("<I", len(blob)) + blob for hash, blob in blobs.items()}
    return {hash for hash, record in wanted.items() if any(record in data for data in files)}


def shown(store, slots=2):
    return {bytes.fromhex(o["hash"]) for o in tool("ls", "--json", store).objects}


def every_command():
    blobs = dict(zip(HASHES, BLOBS))
    for name, damage, options in DAMAGE:
        shutil.rmtree("s", ignore_errors=True)
        for gone in ("out", "copied", "synced", "salvaged"):
            shutil.rmtree(gone, ignore_errors=True)
        base("s")
        damage()
        view = View("s", torn=options.get("torn", False))
        before = tree("s")
        try:
            gives_out(view, blobs)
            salvages(view, blobs, options.get("salvage"))
            same(tree("s") == before, True, "a command that looks changed the store")
            keeps(view, blobs)
        except SystemExit as failure:
            sys.exit(f"{name}: {failure}")


def gives_out(view, blobs):
    look(view)
    faulty = int(not view.check()[-1]["sound"])
    sound = {hash for hash, blob in view.blobs.items() if blob[4]}
    verdicts = {hash: "ok" if hash in sound else "damaged" if hash in view.blobs else "missing" for hash in [*blobs, WRONG]}
    headers = [f for f in view.files if f.state == "damaged" or not f.exists]
    got = tool("check", "--quick", "--json", "s", status=int(bool(headers)))
    same([o["file"] for o in got.objects], [f.path for f in headers], "check --quick")

    got = tool("get", "s", "--batch", stdin=b"".join(hash.hex().encode() + b"\n" for hash in verdicts), status=faulty)
    answers = [f"{hash.hex()} {len(blobs[hash])}\n".encode() + blobs[hash] if verdict == "ok" else f"{hash.hex()} {verdict}".encode()
               for hash, verdict in verdicts.items()]
    same(got.out.split(b"\n"), b"\n".join([*answers, b""]).split(b"\n"), "get --batch")
    for verdict, hash in {verdict: hash for hash, verdict in verdicts.items()}.items():
        wanted = 1 if view.damaged or verdict == "damaged" else 0 if verdict == "ok" else 4
        same(tool("get", "s", hash.hex(), status=wanted).out, blobs[hash] if verdict == "ok" else b"", "get")

    pathlib.Path("all").write_text("".join(f"{hash.hex()}  f{hash.hex()}\n" for hash in verdicts))
    pathlib.Path("good").write_text("".join(f"{hash.hex()}  f{hash.hex()}\n" for hash in sound))
    got = tool("verify", "s", "all", "--json", status=1 if faulty else 4)
    same([(o["name"], o["hash"], o["verdict"]) for o in got.objects],
         [(f"f{hash.hex()}", hash.hex(), verdict) for hash, verdict in verdicts.items()], "verify")
    if sound:
        got = tool("export", "s", "good", "out", status=int(view.damaged))
    tool("export", "s", "all", "out", "--force", status=1)
    same(tree("out"), {f"f{hash.hex()}": blobs[hash] for hash in sound}, "export")
    for command, target, more in (("copy", "copied", [hash.hex() for hash in view.blobs]), ("sync", "synced", [])):
        tool("init", target)
        if more or command == "sync":
            tool(command, "s", target, *more, status=faulty)
        same(shown(target), sound, command)
    got = tool("diff", "s", "copied", "--json", status=int(view.damaged or sound != set(view.blobs)))
    same([(o["only_in"], o["hash"]) for o in got.objects], [("a", h.hex()) for h in view.blobs if h not in sound], "diff")


def salvages(view, blobs, status):
    found = recoverable("s", blobs)
    sound = not view.damaged and view.check()[-1]["sound"] and all(f.is_sound(False) for f in view.files)
    before = tree("s")
    tool("salvage", "s", "salvaged", status=int(not sound) if status is None else status)
    same(shown("salvaged"), found, "salvage")
    tool("check", "salvaged", status=0)
    same(tree("s") == before, True, "salvage changed what it reads")


def keeps(view, blobs):
    """A damaged store is not changed at once, and what could be had before can be had afterwards."""
    sound = {hash for hash, blob in view.blobs.items() if blob[4]}
    found = recoverable("s", blobs) if view.damaged else sound  # a repack leaves the rest behind
    for number, command in enumerate((["put", "s", "-"], ["import", "s", "out"], ["repack", "s"], ["put", "s", "-"])):
        got = tool(*command, stdin=b"new")
        if view.damaged and number == 0:
            same((got.status, got.out), (1, b""), f"{command} of a damaged store")
        same(found - recoverable("s", blobs), set(), f"{command}: what salvage cannot find any more")
        if got.status == 0 and command[0] == "put":
            same(tool("get", "s", md5(b"new").hex()).out, b"new", "what was acknowledged")
        got = tool("get", "s", "--batch", stdin=b"".join(b"%s\n" % h.hex().encode() for h in sound))
        same({h for h in sound if b"%d\n%s\n" % (len(blobs[h]), blobs[h]) not in got.out}, set(), f"{command}: what was there before")


# What --live-only takes and leaves: in doubt, a blob is live.
def live_only():
    four = HASHES[4]
    deletion = transaction(ID + 20, delete(ID + 20, four))

    def more(data, is_counted):
        journal = File("s/1.jrn")
        body = journal.data[24 : journal.end]
        head = file(0, 1, count=journal.count + 3 * is_counted, end=journal.end + len(data) * is_counted)
        pathlib.Path("s/1.jrn").write_bytes(head + body + data)

    rows = (
        ("nothing", lambda: None, {HASHES[6]}),
        ("a commit deletes", lambda: more(deletion, True), {HASHES[6], four}),
        ("a commit that did not reach the header", lambda: more(deletion, False), {HASHES[6]}),
        ("a commit that does not match its digest", lambda: more(transaction(ID + 20, delete(ID + 20, four), digest=bytes(16)), True), {HASHES[6]}),
        ("the same pack set aside", lambda: shutil.copy("s/1.pak", "s/1.pak.kept-1"), {HASHES[6]}),
        ("a sequence that does not agree", lambda: change("s/1.pak", 12, b"\4\0\0\0"), set()),
    )
    for name, do, left in rows:
        for gone in ("s", "out"):
            shutil.rmtree(gone, ignore_errors=True)
        base("s")
        do()
        tool("salvage", "--live-only", "s", "out")
        same(shown("out"), set(HASHES) - left, f"salvage --live-only, {name}")


# A disk that fails, or gives other bytes the second time.
def failing_disk():
    base("s")
    at = data_of("s/1.pak", BLOBS[4])
    os.remove("s/0.jrn")  # which has the same blobs
    fail_there = {"READ_FILE": "s/1.pak", "READ_AT": at // 4096 * 4096, "READ_DO": "fail"}
    for calls in (fail_there, {**fail_there, "READ_DO": "rot", "READ_AT": at + 10}):
        shutil.rmtree("out", ignore_errors=True)
        got = tool("salvage", "s", "out", calls=calls, status=1)
        again = {r[3] for r in File("s/1.jrn").records()}
        lost = {r[3] for r in File("s/1.pak").records() if r[0] < calls["READ_AT"] + 4096 and r[0] + 36 + r[4] > calls["READ_AT"]}
        lost = lost - again if calls is fail_there else {HASHES[4]}
        same(shown("out"), set(HASHES) - lost, f"salvage, {calls['READ_DO']}")
        tool("check", "out", status=0)


if __name__ == "__main__":
    scenario(live_only, failing_disk, every_command)
