"""What looking commands say of stores that are sound. A row for an option or an argument belongs into
rows_of_arguments(), a key of --json into model.py, a state of a file into damage.py."""

import contextlib
import fcntl
import itertools
import pty
import termios

from model import *


def by_hand():
    hostile = os.fsdecode(b"a\n\"<b>\x01 \xff")
    base(hostile)
    look(View(hostile))
    base("s")
    for path in ("s", "s/1.pak", "s/1.jrn", "s/0.jrn"):
        look(View(path))
    tool("init", "one", "--slots", "1", status=0)
    shutil.copy("s/1.pak", "one/0.pak.new")  # of a repack
    look(View("one", 1))
    os.remove("s/blobring.conf")  # as a device has it
    look(View("s"), "--slots", "2")
    os.mkdir("packs")
    for k in (0, 1):
        os.rename(f"s/{k}.pak", f"packs/{k}.pak")
    got = tool("ls", "s", "--json", "--pack-dir", "packs", status=0)
    same({o["hash"] for o in got.objects}, {h.hex() for h in set(HASHES) - {HASHES[6]}}, "ls --pack-dir")


def rows_of_arguments():
    base("s")
    tool("init", "t", status=0)
    seen, blobs = {}, (b"%d" % k for k in itertools.count())
    one = next(blob for blob in blobs if seen.setdefault(md5(blob)[:3], blob) != blob)
    for blob in (one, seen[md5(one)[:3]]):  # of which the hashes begin with the same six digits
        tool("put", "s", stdin=blob, status=0)
    view, digits, four, zeros = View("s"), md5(one).hex()[:6], HASHES[4].hex(), "0" * 32
    ls, log, size = view.ls(), view.log(), {o["hash"]: {"size": o["size"]} for o in view.ls()}
    pathlib.Path("list").write_text(f"{four}  x\n{zeros}  y\n")
    differing = [{"type": "difference", "only_in": "ab"[hash in size], "hash": hash, **size.get(hash, {})} for hash in sorted({*size, zeros} - {four})]
    patch = [f"  {'+-'[o['change'] == 'removed']} {o['hash']}" + (f" {o['size']}" if "size" in o else "") for o in log if o["type"] == "change"]
    rows = (  # status, what is printed (objects, bytes, or lines that begin so), command
        (0, sorted(ls, key=lambda o: -o["size"]), "ls s --json --sort size"),
        (0, sorted(ls, key=lambda o: -o["transaction"]), "ls s --json --sort transaction"),
        (0, [o for o in ls if o["hash"].startswith(digits)], f"ls s --json {digits.upper()}"),
        (0, "".join(f"{hash}\n" for hash in size).encode(), "ls s"),
        (2, [], "ls s --json xyz"),
        (0, view.log(ID + 7), f"log s --json -p --since {ID + 7}"),
        (0, [o for o in log if o["type"] == "transaction"], "log s --json"),
        (0, ("  ", patch), "log s -p"),
        (2, [], "log s --json --since 1x"),
        (0, [o for o in view.inspect() if (o["type"], o.get("id"), o.get("file")) == ("transaction", ID + 8, "s/1.jrn")],
         f"inspect s/1.jrn --json --transaction {ID + 8}"),
        (4, [], "inspect s/1.jrn --json --transaction 5"),
        (0, BLOBS[4] + BLOBS[9], f"cat s {four[:6].upper()} {HASHES[9].hex()}"),
        (0, one, f"get s {md5(one).hex()[:12]}"),
        *((2, b"", f"{command} {word}") for command in ("get s", "rm s", "copy s t") for word in (digits, four[:5])),
        (4, b"", f"get s {zeros}"),
        (0, [], "diff s s --json"),
        (1, differing, "diff list s --json"),
    )
    before = tree("s")
    for status, wanted, line in rows:
        got = tool(*line.split(), status=status)
        if isinstance(wanted, tuple):
            same([each for each in got.out.decode().splitlines() if each.startswith(wanted[0])], wanted[1], line)
        else:
            same([o for o in plain(got.objects) if o["type"] != "file"] if "--json" in line else got.out, wanted, line)
    same(tree("s") == before, True, "a command that was refused changed something")
    asked = {four: None, four[:6]: None, digits: "ambiguous", zeros: "missing", "0" * 5: "missing", "": "missing", HASHES[6].hex(): "missing"}
    got = tool("get", "s", "--batch", stdin="".join(f"{word}\n" for word in asked).encode(), status=0)
    wanted = b"".join(f"{word} {what}\n".encode() if what else b"%s 5001\n%s\n" % (four.encode(), BLOBS[4]) for word, what in asked.items())
    same(got.out.split(b"\n"), wanted.split(b"\n"), "get --batch")


# More records than are kept without being compacted: deleted, stored again, and deleted for good.
def many_records():
    blobs = [b"%05d" % k for k in range(70000)]
    stores = [store(1, blob) for blob in blobs]
    deletions = [delete(2, md5(blob)) for blob in blobs]
    tool("init", "s", status=0)
    put_files("s", _0pak=file(1, 0, transaction(0, *stores)), _0jrn=file(0, 0, transaction(2, *deletions), transaction(3, *stores),
              transaction(4, *deletions[1::2]), transaction(5, *stores[1::4])))
    view = View("s")
    same(len(view.blobs), 52500, "the model itself")
    for command, wanted in (("ls", view.ls()), ("stat", view.seen().stat()), ("check", view.check())):
        same(plain(tool(command, "s", "--json", status=0).objects), wanted, command)


# At each of its reads, another process repacks the store twice: what is said is what was there before
# or after that.
def beside_repacks():
    def said(command, **options):
        done = tool(*command.split(), **options)
        return done.status, re.sub(rb'"time":"[^"]*"', b"", done.out) if "report" in command else done.out

    for slots in (1, 2):
        tool("init", "fresh", "--slots", slots, status=0)
        large = bytes(600000)  # more than a reader holds
        for blob in (BLOBS[5], BLOBS[4], large, BLOBS[9], b"in the journal" + large, BLOBS[8]):
            tool("put", "fresh", stdin=blob, status=0)
            tool("repack", "fresh", status=0) if blob == BLOBS[9] else None
        tool("rm", "fresh", HASHES[5].hex(), md5(large).hex(), status=0)  # what lies behind moves
        pathlib.Path("list").write_bytes(tool("ls", "fresh", status=0).out.replace(b"\n", b"  x\n"))
        for command in ("ls s --json", "check s --json", "verify s list --json", f"get s {HASHES[4].hex()}", "log s -p", "report s --json"):
            for at in itertools.count(1):
                shutil.rmtree("s", ignore_errors=True)
                shutil.copytree("fresh", "s")
                before = before if at > 1 else said(command)
                calls = {"CALLS": " pread64 ", "CALLS_AT": at, "CALLS_DO": f"'{TOOL}' repack -q s && '{TOOL}' repack -q s"}
                got = said(command, calls=calls)
                same(got in (before, said(command)) or got == (3, b"") and "log" in command, True, f"{command} beside a repack at read {at}\n{got}")
                if View("s", slots).sequence == 1:  # that many reads there are not
                    break
            same(at > 3, True, f"{command} reads")
        shutil.rmtree("fresh")


def held():
    base("s")
    before = tree("s")
    with open("s/1.pak") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        same(tool("stat", "s", "--json", status=0).objects[0]["open_in"][0]["pid"], os.getpid(), "who has it open")
        for status, command in ((0, "ls s"), (0, "check s"), (0, "get s " + HASHES[4].hex()), (4, "clean s"), (3, "put s list"),
                                (3, "rm s " + HASHES[4].hex()), (3, "import s ."), (3, "repack s"), (3, "clean --delete s")):
            pathlib.Path("list").touch()
            tool(*command.split(), status=status)
    same(tree("s") == before, True, "a store that another process has open changed")


def on_a_terminal():
    def run(command, columns=80, **environment):
        ours, terminal = pty.openpty()
        fcntl.ioctl(terminal, termios.TIOCSWINSZ, pack("4H", 50, columns, 0, 0))
        environment = {k: v for k, v in os.environ.items() if k != "NO_COLOR"} | environment
        process = subprocess.Popen([TOOL, *command.split()], stdout=terminal, stderr=terminal, env=environment)
        os.close(terminal)
        text = b""
        with contextlib.suppress(OSError):  # at its end
            while True:
                text += os.read(ours, 65536)
        os.close(ours)
        return text.decode(), process.wait()

    base("s")
    same(run("report s")[1], 2, "a page on a terminal")
    change("s/1.jrn", pathlib.Path("s/1.jrn").read_bytes().index(BLOBS[7]) + 100)
    for what, has, text in (
        ("a terminal", True, run("check s")[0]), ("NO_COLOR", False, run("check s", NO_COLOR="1")[0]), ("never", False, run("check s --color=never")[0]),
        ("JSON", False, run("check s --json -q")[0]), ("a pipe", False, tool("check", "s").out.decode()), ("always", True, tool("check", "s", "--color=always").out.decode()),
    ):
        same(("\x1b[31m" in text, "\x1b[2m" in text), (has, has), f"red damage and dim hashes: {what}")
    for columns in (60, 120):
        widest = max(map(len, run("help repack", columns)[0].splitlines()))
        same(columns - 20 < widest <= columns, True, f"{widest} columns of {columns}")


scenario(by_hand, rows_of_arguments, many_records, beside_repacks, held, on_a_terminal)
