"""Each command that changes something, killed, failing or interrupted at one system call after the
other: what was acknowledged is there, nothing is torn, the next run gets where an undisturbed one
does; what is published was flushed, and a dry run says what a real one does. Then what is refused,
names, and files that fail. A new command that changes something goes into COMMANDS, a new refusal
into REFUSED."""

import contextlib
import errno
import fcntl
import itertools
import resource
import signal

from model import *

WRITES = " write pwrite64 ftruncate64 fsync fdatasync syncfs unlink unlinkat mkdir renameat2 "
TRANSFERS = " read pread64 write pwrite64 "
IMPORTED = {"a": bytes(10), "b/c": bytes(90000), "b/d": b"d" * 400, "e": b"e" * 400, "f\\\n": b"f"}
ADDED = frozenset(map(md5, IMPORTED.values()))
S = frozenset(HASHES) - {HASHES[6]}  # what base() has
LESS = frozenset(sorted(S)[::2])
EXPORTED = {f"{k}/{hash.hex()}": BLOBS[HASHES.index(hash)] for k, hash in enumerate(sorted(S))}
FOUR = HASHES[4].hex()


def make_fresh():
    """In `fresh`: that store, an empty one, one with leftovers, a tree, manifests of all and of some blobs."""
    os.mkdir("fresh")
    os.chdir("fresh")
    base("s")
    tool("init", "t", status=0)
    shutil.copytree("t", "u")
    tool("put", "u", stdin=BLOBS[0], status=0)
    shutil.copy("u/0.jrn", "u/0.jrn.kept-1")
    pathlib.Path("u/0.pak.new").touch()
    make_tree("tree", IMPORTED)
    pathlib.Path("m").write_text("".join(f"{name[2:]}  {name}\n" for name in EXPORTED))
    pathlib.Path("less").write_text("".join(f"{hash.hex()}  x\n" for hash in LESS))
    pathlib.Path("old").write_text("old")
    os.chmod("old", 0o640)
    os.chdir("..")


def make_tree(directory, contents):
    for name, data in contents.items():
        path = pathlib.Path(directory, name)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(data)


def renew():
    for name in set(os.listdir(".")) - {"fresh"}:
        shutil.rmtree(name) if os.path.isdir(name) and not os.path.islink(name) else os.remove(name)
    shutil.copytree("fresh", ".", dirs_exist_ok=True, symlinks=True)


def read(path):
    return pathlib.Path(path).read_bytes()


def ls(store):
    return frozenset(View(store).blobs) if os.path.exists(f"{store}/blobring.conf") else frozenset()


def files(directory):
    return {name: data for name, data in tree(directory).items() if ".blobring-" not in name}


def temporary():
    return {name for name in tree(".") if ".blobring-" in name}


def hashes(text):
    return {bytes.fromhex(word.decode()) for word in re.findall(rb"\b[0-9a-f]{32}\b", text)}


# The command; what a disturbed run may leave, also by what it printed; what a whole run leaves; and the
# hashes that a dry run prints, if there is one.
COMMANDS = (
    (["put", "s", *("tree/" + name for name in IMPORTED)], lambda r: S | hashes(r.out) <= ls("s") <= S | ADDED, lambda: ls("s") == S | ADDED, ADDED),
    (["import", "s", "tree", "-m", "out"], lambda r: S <= ls("s") <= S | ADDED and (not os.path.exists("out") or ls("s") == S | ADDED),
     lambda: ls("s") == S | hashes(read("out")) == S | ADDED, ADDED),
    (["import", "s", "tree", "-m", "old", "--force"], lambda r: read("old") == b"old" or ls("s") == S | ADDED,
     lambda: hashes(read("old")) == ADDED, ADDED),
    (["rm", "s", "--not-in", "less"], lambda r: ls("s") in (S, LESS), lambda: ls("s") == LESS, S - LESS),
    (["copy", "s", "t", *(h.hex() for h in LESS)], lambda r: ls("t") <= LESS, lambda: ls("t") == LESS, LESS),
    (["sync", "s", "t"], lambda r: ls("t") <= S, lambda: ls("t") == S, S),
    (["repack", "s"], lambda r: ls("s") == S, lambda: ls("s") == S and View("s").sequence >= 2, set()),
    (["salvage", "s", "out"], lambda r: ls("out") <= set(HASHES), lambda: ls("out") == set(HASHES), set()),
    (["export", "s", "m", "out"], lambda r: files("out").items() <= EXPORTED.items(), lambda: files("out") == EXPORTED, S),
    (["get", "s", FOUR, "-o", "old"], lambda r: read("old") in (b"old", BLOBS[4]),
     lambda: (read("old"), os.stat("old").st_mode & 0o777) == (BLOBS[4], 0o640), None),
    (["init", "out/b"], lambda r: True, lambda: len(files("out/b")) == 5 and not View("out/b").damaged, None),
    (["clean", "u", "--delete"], lambda r: ls("u") == {HASHES[0]}, lambda: len(files("u")) == 5, set()),
)


def flushed_before_published(log, command):
    calls = [tuple(line.split(" ")[:2]) for line in log.splitlines() if " " in line]
    for at, (call, path) in enumerate(calls):
        parent = os.path.dirname(os.path.abspath(path))
        after = [(c, os.path.abspath(p)) for c, p in calls[at:]]
        if command == "export":
            same(call != "renameat2" or "syncfs" in [c for c, _ in after], True, "export: the file system is flushed at the end")
            continue
        if call == "renameat2":
            same([c for c, p in calls[:at] if p == path][-1:], ["fsync"], f"{command}: the last call on {path} before its rename")
        if call in ("renameat2", "mkdir"):
            same(("fsync", parent) in after, True, f"{command}: {parent} is flushed after {call}")


def disturbed():
    make_fresh()
    for command, holds, ended, announced in COMMANDS:
        renew()
        if announced is not None:
            same(hashes(tool(*command, "--dry-run", status=0).out), announced, f"{command} --dry-run")
            same(len(tree(".")), 2 * len(tree("fresh")), f"files after {command} --dry-run")
            same({name for name, data in tree("fresh").items() if read(name) != data}, set(), f"{command} --dry-run changes")
        tool(*command, status=0, calls={"CALLS_LOG": os.path.abspath("log"), "CALLS": ""})
        same(bool(ended()), True, f"{command}, undisturbed")
        log = read("log").decode()
        flushed_before_published(log, command[0])
        names = [f" {line.partition(' ')[0]} " for line in log.splitlines()]
        force = ["--force"] if command[0] in ("export", "import") and "--force" not in command else []
        for what, counted, times in (("kill", WRITES, 6), (errno.EIO, WRITES, 4), (errno.ENOSPC, WRITES, 3), ("interrupt", TRANSFERS, 4)):
            last = sum(name in counted for name in names)
            points, told = {1 + (last - 1) * k // (times - 1) for k in range(times)}, what != "interrupt"
            for at in sorted(points if told else {max(1, last - k) for k in (12, 9, 6, 5, 4, 3)}):  # when it is at work
                renew()
                result = tool(*command, calls={"CALLS": counted, "CALLS_AT": at, "CALLS_DO": what})
                say = f"{command}, {what} at call {at} of {last}: status {result.status}\n{result.err}"
                same(result.status in {"kill": (-signal.SIGKILL, 0), "interrupt": (130, 0)}.get(what, (0, 1)), True, say)
                same((bool(holds(result)), View("s").damaged, View("t").damaged), (True, False, False), f"what holds after {say}")
                claim = re.search(r"interrupted: (\d*)", result.err)
                copied = {"import": ls("s") - S, "copy": ls("t"), "sync": ls("t")}.get(command[0])
                told = told or claim is not None
                if claim and copied is not None:
                    same(int(claim[1]), len(copied), say)
                if claim and command[0] == "put":
                    same(ls("s") - S, hashes(result.out), say)
                if command[0] == "rm" and "interrupted" in result.err:
                    same(ls("s"), S, say)
                    told = True
                if command[0] == "salvage":  # which is begun anew
                    shutil.rmtree("out", ignore_errors=True)
                left = temporary()
                same(what == "kill" or not left, True, f"{left} after {say}")
                # What a live process writes to is locked, and stays; without it, it goes.
                with contextlib.ExitStack() as locks:
                    for name in left:
                        fcntl.flock(locks.enter_context(open(name)), fcntl.LOCK_EX)
                    tool(*command, *force)
                    same((bool(ended()), left - temporary()), (True, set()), f"the run after {say}")
                if left and command[0] not in ("init", "export"):  # which writes no more where all is there
                    tool(*command, *force)
                    same(temporary(), set(), f"what is left by the run after {say}")
            same(told or command[0] not in ("put", "import", "rm", "repack"), True, f"{command}: an interrupt says what was done")


# Statuses of commands in such a directory, and behind a # what is said. A status of 2 says that nothing was changed.
REFUSED = f"""
2: # a command is missing; `blobring --help`|remote # `blobring remote --help`|frobnicate s|ls s --frobnicate|help frobnicate|ls s --slots 3|init s --slots 3|init s --pack-dir tree|init x --pack-dir p
2:put|import s tree -m old|get s {FOUR} -o link|export s one-space x|export s bad-escape x|export s zero x|export s absolute x|export s up x
2:export s slash x|rm s|rm s {FOUR} --not-in m|rm s --not-in nothing|rm s --not-in m nothing|rm s --not-in gone|rm s --not-in m one-space
2:stats s # did you mean stat?|ls s --jsn # did you mean --json?|import s tree tree # two files would be called|copy s t|salvage s t|salvage s s/x|verify s m --write m|repack --if-dead 101% s
1:put bare m # `blobring init --slots 2 bare` adopts it|init m|ls tree|put s absent|put s tree|import s absent -m x|get absent {FOUR}|export s through in|export s gone x|rm s --not-in absent
1:sync s absent|salvage tree x|clean kept --delete|clean lost --delete|clean broken --delete --force|export s m there|verify s broken.chk|verify s absent|diff s t
4:ls s {'0' * 32}|rm s {'0' * 32}|copy s t {'0' * 32}|clean s|verify s gone --write x|verify s nothing|repack --if-dead 90% s
0:help ls|init s|sync s s|clean kept --delete --force|clean lost --delete --force|repack --if-dead 1% s|diff s m
4:rm s {FOUR} {'0' * 32}"""


def refused():
    make_fresh()
    texts = {"one-space": f"{FOUR} x", "bad-escape": f"\\{FOUR}  a\\q", "zero": f"{FOUR}  a\0b", "absolute": f"{FOUR}  ok\n{FOUR}  /tmp/x", "nothing": "",
             "up": f"{FOUR}  ok\n{FOUR}  a/../../x", "slash": f"{FOUR}  a/", "through": f"{FOUR}  link/f", "gone": f"{'0' * 32}  x"}
    make_tree("fresh", {name: f"{text}\n".encode() if text else b"" for name, text in texts.items()})
    make_tree("fresh", {"broken.chk": b"0123456789\1\2\3\4\5\6" + read("fresh/m"), "in/x": b""})
    tool("init", "fresh/far", "--pack-dir", "fresh/p", status=0)
    os.symlink("old", "fresh/link")
    os.symlink("../tree", "fresh/in/link")
    shutil.copytree("fresh/t", "fresh/kept")
    shutil.copy("fresh/s/1.jrn", "fresh/kept/0.jrn.kept-1")  # of which the store has nothing
    shutil.copytree("fresh/t", "fresh/lost")
    pathlib.Path("fresh/lost/0.jrn.kept-1").write_bytes(file(0, 0, end=90000) + bytes(70000))
    shutil.copytree("fresh/s", "fresh/bare")  # as the library makes it
    os.remove("fresh/bare/blobring.conf")
    shutil.copytree("fresh/s", "fresh/broken")
    change("fresh/broken/1.jrn", 50)
    make_tree("fresh", {"broken/0.pak.new": b""} | {f"there/{name}": b"mine" for name in EXPORTED})
    before = tree("fresh")
    for status, commands in (line.split(":", 1) for line in REFUSED.splitlines()[1:]):
        for command in commands.split("|"):
            renew()
            command, _, said = command.partition(" # ")
            same(said in tool(*command.split(), status=int(status)).err, True, f"{command}: {said}")
            if status != "0" and "0" * 32 not in command or status == "2":
                same({name: data for name, data in tree(".").items() if not name.startswith("fresh/")} == before, True, f"{command}: nothing changes")
    tool("init", "bare", status=0)
    tool("put", "bare", "m", status=0)
    same(ls("bare"), S | {md5(read("m"))}, "a store that was adopted")
    names = [f"u/.blobring-{k * 32}.tmp" for k in "ab"]  # of a live process, and of one that is gone
    make_tree(".", dict.fromkeys(names, b""))
    with open(names[0]) as live:
        fcntl.flock(live, fcntl.LOCK_EX)
        tool("clean", "u", "--delete", status=0)
    same([os.path.exists(name) for name in names], [True, False], "temporary files after clean")
    same((ls("s"), os.path.exists("kept/0.jrn.kept-1")), (S - {HASHES[4]}, True), "rm of what is there and what is not")


# Every command with --json: objects that docs/json.md has, with all of its keys, and nothing else.
def in_json():
    text = (pathlib.Path(__file__).parents[2] / "docs/json.md").read_text()
    keys = {t: set(re.findall(r"`(\w+)`", keys)) for t, keys in re.findall(r"^\| `(\w+)` \| (.*) \|$", text.split("| type |")[1], re.M)}
    make_fresh()
    for command, *types in (
        ("init x", "init"), ("init s", "init"), ("put s old - -n", "stored"), ("put s old m", "stored"), ("import s tree -n", "stored", "import"),
        ("import s tree old", "stored", "import"), ("import s tree -m new", "import"), (f"rm s {FOUR} -n", "removed"), (f"rm s {FOUR}", "removed"),
        ("export s m y -n", "restored"), ("export s m y", "export"), ("sync s t -n", "missing", "copy"), ("sync s t", "copy"), (f"copy s t {FOUR}", "copy"),
        ("repack s -n", "repack"), ("repack s --if-dead 90%", "repack"), ("repack s", "repack"), ("salvage s y -n", "salvage"), ("salvage s y", "check", "salvage"),
        ("clean u", "leftover"), (f"get s {FOUR} -o y", "blob"), (f"get s {FOUR}",), (f"cat s {FOUR}",), ("ls s", "blob"), ("stat s", "stat", "file"),
        ("log s -n 1", "transaction"), ("diff s t", "difference"), ("check s", "check"), ("verify s m", "verified"),
        ("inspect s/1.jrn --records", "file", "transaction", "record", "rest"), ("report s", "report", "stat", "file", "check", "region", "transaction_bin"),
    ):
        renew()
        status = 2 if not types else 4 if "90%" in command else int("diff" in command)
        got = tool("--json", "--color=always", *command.split(), stdin=b"x", status=status)
        same(sorted(set(o["type"] for o in got.objects)), sorted(types), f"{command}\n{got.out}{got.err}")
        for o in got.objects:
            same((set(o) - keys[o["type"]], got.out.count(b"\n")), ({"type"}, len(got.objects)), f"{command}: keys\n{got.out}")


# A tree with names that shells fear, through manifests of every form and back.
def names():
    odd = ["-", "--help", " leading", "*star", "back\\slash", "new\nline", "return\r", "\\n", "trailing ", "\x01\x1b[2J\u009b", "n" * 255, "#x",
           "dir\nwith newline/x", " /y", os.fsdecode(b"\xff\xfe not UTF-8")]
    contents = {name: os.fsencode(name) for name in odd} | {f"{k:04}": b"%d" % k for k in range(1001)}  # more than a transaction takes
    make_tree("tree", contents)
    os.symlink("x", "tree/\a\u009bm\u00c0")

    def lines(form, end):
        for name, data in contents.items():
            escaped = re.sub(r"[\\\n\r]", lambda m: {"\\": r"\\", "\n": r"\n", "\r": r"\r"}[m[0]], name)
            yield os.fsencode(("\\" if escaped != name else "") + form.format(hash=md5(data).hex(), name=escaped) + end)

    tool("init", "s", status=0)
    got = tool("import", "s", "tree", "-m", "m", "-v", status=0)
    same(sorted(read("m").splitlines(True)) if b"\r" not in read("m") else [], sorted(lines("{hash}  ./{name}", "\n")), "the manifest")
    same(ls("s"), frozenset(map(md5, contents.values())), "import")
    same(("left out tree/??m\u00c0: a symbolic link" in got.err, re.search("[\0-\x09\x0b-\x1f\x7f-\x9f]", got.err)), (True, None), got.err)
    tool("verify", "s", "m", "--write", "sum.chk", status=0)
    chk = read("sum.chk")
    same((chk[:16], chk[16:]), (md5(read("m")), read("m")), "a checksum file")
    for text in (chk, *(b"# a comment\r\n" + b"".join(lines(form, "\r\n")) for form in ("{hash} *{name}", "MD5 ({name}) = {hash}"))):
        tool("export", "s", "-", "out", stdin=text, status=0)
        same(tree("out") == tree("tree"), True, f"export of {text[:60]}")
        shutil.rmtree("out")
    change("sum.chk", 20)
    tool("verify", "s", "sum.chk", status=1)
    pathlib.Path("one.chk").write_bytes(md5(b"0") + b"0")  # of a file that it protects, with its bytes
    tool("verify", "s", "one.chk", status=0)

    # Patterns take the same names of a tree and of its manifest.
    shutil.rmtree("tree")
    make_tree("tree", {name: b"" for name in ("a/x.jpg", "a/b/y.jpg", "a/b/z.tmp", "tmp/x.jpg", "top.jpg")})
    tool("import", "s", "tree", "-m", "all", status=0)
    for options, wanted in (
        ("--include *.jpg --include *.tmp --exclude tmp", "a/b/y.jpg a/b/z.tmp a/x.jpg top.jpg"),
        ("--exclude b/ --exclude top.*", "a/x.jpg tmp/x.jpg"),
        ("--exclude a/b --exclude /x.jpg", "a/x.jpg tmp/x.jpg top.jpg"),
        ("--include a/*.jpg", "a/x.jpg"),
        ("--include /*.jpg", "top.jpg"),
    ):
        listed = tool("import", "s", "tree", *options.split(), status=0).out.decode().splitlines()
        tool("export", "s", "all", "out", *options.split(), status=0)
        same((sorted(each[36:] for each in listed), sorted(tree("out"))), (wanted.split(), wanted.split()), options)
        shutil.rmtree("out")

    # A store, its manifest and what it writes inside the tree are left out, and only these.
    make_tree("inside", {"0.pak": b"kept"})
    tool("init", "inside/store", "--pack-dir", "inside/packs", status=0)
    for more in ([], ["--force"]):
        tool("import", "inside/store", "inside", "-m", "inside/m", *more, status=0)
        same(read("inside/m").split()[1:], [b"./0.pak"], "what is imported")
    os.chdir("inside")
    same(tool("get", "store", md5(b"kept").hex(), status=0).out, b"kept", "from another directory")


# Files that change, cannot be read, are too large, or may not grow.
def failing_files():
    tool("init", "s", status=0)
    make_tree("tree", {"a": b"twice", "b": b"twice"})
    same(re.findall(r"\d+ new blobs?", tool("import", "s", "tree", status=0).err), ["1 new blob"], "import of two that are the same")
    got = tool("import", "s", "tree", calls={"READ_FILE": "tree/a", "READ_DO": "touch"}, status=1)
    same((got.out.count(b"\n"), "tree/a" in got.err), (2, True), "a file that changes while it is read")
    tool("import", "s", "tree", "-m", "out", preexec_fn=lambda: (os.close(1), os.close(2)), status=0)
    same((View("s").damaged, read("out").count(b"\n")), (False, 2), "without standard output")
    with open("/dev/full", "wb") as full:
        same(subprocess.run([TOOL, "get", "s", md5(b"twice").hex()], stdout=full, stderr=subprocess.DEVNULL).returncode, 1, "a full disk")
    at = os.open("tree", os.O_RDONLY)
    for _ in range(20):  # a directory that no path leads to
        os.mkdir("d" * 250, dir_fd=at)
        at, above = os.open("d" * 250, os.O_RDONLY, dir_fd=at), at
        os.close(above)
    os.close(at)
    same(tool("import", "s", "tree", status=1).out.count(b"\n"), 2, "import beside a directory that cannot be read")
    shutil.rmtree("tree/" + "d" * 250)
    pathlib.Path("tree/big").touch()
    os.truncate("tree/big", 2147483532)
    same(tool("import", "s", "tree", status=1).out.count(b"\n"), 2, "import beside a file that is too large")

    make_tree(".", {"f0": b"0" * 1000, "f1": b"1" * (9 << 20), "f2": b"2"})
    limit = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 20, 1 << 20))
    got = tool("put", "s", "f0", "f1", "f2", preexec_fn=limit, status=1)
    same((hashes(got.out), ls("s"), "ulimit -f" in got.err), ({md5(read("f0"))}, {md5(b"twice"), md5(read("f0"))}, True), "put of one that is too large")
    tool("init", "full", status=0)
    for command in ("put", "import"):
        got = tool(command, "full", "f0", "f2", calls={"CALLS": " pwrite64 ", "CALLS_AT": 1, "CALLS_DO": errno.ENOSPC}, status=1)
        same([line[10:24] for line in got.err.splitlines()], ["0 of 2 files a", "the disk is fu", "free some spac"], got.err)
    tool("put", "s", "f1", status=0)
    tool("get", "s", md5(read("f1")).hex(), "-o", "x", preexec_fn=limit, status=1)
    same((os.path.exists("x"), temporary()), (False, set()), "what is left of a file that may not grow")

    make_tree("more", {"1": b"1" * (8 << 20), "2": b"2" * (8 << 20)})
    tool("import", "s", "more", status=0)
    for at in itertools.count(20, 20):
        shutil.rmtree("t", ignore_errors=True)
        tool("init", "t", status=0)
        got = tool("sync", "s", "t", calls={"CALLS": " pread64 ", "CALLS_AT": at, "CALLS_DO": "interrupt"})
        if ls("t"):
            break
    claim = f"interrupted: {len(ls('t'))} new blob"
    same((got.status, claim in got.err), (130, True), f"a copy that is interrupted in the middle: {got.err}")

    # While standard input or a pipe is awaited, others may use the store.
    waiting = subprocess.Popen([TOOL, "put", "s", "f2", "-"], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    while tool("ls", "s", md5(read("f2")).hex()).status != 0:
        pass
    tool("rm", "s", md5(b"twice").hex(), status=0)
    same(waiting.communicate(b"input")[0].decode().split(), [md5(read("f2")).hex(), md5(b"input").hex()], "put that waited")


# A file and blob of 96 MiB, in less than 80. Comes first: the memory of what starts a command counts as its own.
def large():
    piece, count = bytes(range(256)) * 4096, 96
    make_tree("tree", {"big": piece})
    with open("tree/big", "ab") as big:
        for _ in range(count - 1):
            big.write(piece)
    digest = hashlib.md5(usedforsecurity=False)
    for _ in range(count):
        digest.update(piece)
    hash = digest.hexdigest()

    def lean(*arguments, stdin=b""):
        make_tree(".", {"in": stdin})
        with open("in", "rb") as given, open("out", "wb") as printed:
            process = subprocess.Popen([TOOL, *arguments], stdin=given, stdout=printed, stderr=subprocess.DEVNULL)
            _, status, used = os.wait4(process.pid, 0)
        same((status, used.ru_maxrss < 80 << 10), (0, True), f"{arguments[0]} of a large file or blob, {used.ru_maxrss} KiB")

    def is_whole(path, head=b"", tail=b""):
        with open(path, "rb") as file:
            found = (file.read(len(head)), all(file.read(len(piece)) == piece for _ in range(count)), file.read())
        os.remove(path)
        same(found, (head, True, tail), path)

    for name in ("s", "t", "u"):
        tool("init", name, status=0)
    for _ in range(2):
        lean("put", "s", "tree/big")
        same(read("out").decode(), hash + "\n", "put")
    lean("import", "s", "tree", "-m", "m")
    lean("get", "s", hash, "-o", "got")
    is_whole("got")
    lean("cat", "s", hash)
    is_whole("out")
    lean("get", "s", "--batch", stdin=hash.encode())
    is_whole("out", f"{hash} {count << 20}\n".encode(), b"\n")
    for _ in range(2):
        lean("export", "s", "m", "to")
    is_whole("to/big")
    lean("sync", "s", "t")
    lean("verify", "t", "m")
    same(ls("t"), {digest.digest()}, "sync")

    put_files("u", _0jrn=file(0, 0, transaction(ID, store(ID, piece * 5, hash=bytes(16)))))
    same(tool("cat", "u", "00" * 16, status=1).out, b"", "a damaged blob on standard output")
    same(tool("get", "u", "--batch", stdin=b"00" * 16, status=1).out, b"00" * 16 + b" damaged\n", "and in a batch")
    tool("get", "u", "00" * 16, "-o", "got", status=1)
    same((os.path.exists("got"), temporary()), (False, set()), "and in a file")


# A journal with room for an empty blob, and for what deletes: puts are refused, a copy repacks the
# store and goes on. The file is nearly all holes.
def full_journal():
    blob, room = bytes(64 << 20), MAX_FILE - 64 * 88 - 92
    one = transaction(ID, store(ID, blob), delete(ID, md5(blob)))
    count, rest = divmod(room - 24 - 92, len(one))
    last = transaction(ID, store(ID, blob[:rest]))
    for name in ("s", "t"):
        tool("init", name, status=0)
    with open("t/0.jrn", "wb") as journal:
        journal.write(file(0, 0, count=4 * count + 3, end=room))
        for each in [one] * count + [last]:
            journal.write(each[:100])
            journal.seek(len(each) - 200, os.SEEK_CUR)
            journal.write(each[-100:])
    same("run `blobring repack`" in tool("put", "t", stdin=b"1", status=1).err, True, "advice for a full journal")
    tool("put", "t", stdin=b"", status=0)
    same(os.path.getsize("t/0.jrn"), room + 92, "the end of a full journal")
    tool("rm", "t", md5(b"").hex(), status=0)
    more = b"more" * 25000
    tool("put", "s", stdin=more, status=0)
    tool("sync", "s", "t", status=0)
    same(tool("get", "t", md5(more).hex(), status=0).out == more, True, "copied into a full journal")


# Two files that are nearly all holes have more than fits into a pack.
def more_than_a_pack():
    size = 1100 << 20
    tool("init", "s", status=0)
    for mode, path in enumerate(("s/0.jrn", "s/0.pak")):
        record = store(ID, b"", hash=bytes([mode]) * 16)[:-4] + pack("<I", size)
        digest = hashlib.md5(record)
        for _ in range(1100):
            digest.update(bytes(1 << 20))
        head = begun(ID)[:16] + pack("<iI16s", size, len(record) + size, digest.digest()) + record
        with open(path, "wb") as f:
            f.write(file(mode, 0, count=3, end=24 + len(head) + size + 16) + head)
            f.seek(size, os.SEEK_CUR)
            f.write(END + pack("<iq", 0, ID))
    before = os.stat("s/1.pak").st_mtime_ns
    same("do not fit into one pack" in tool("repack", "s", status=1).err, True, "why a repack is refused")
    same(os.stat("s/1.pak").st_mtime_ns, before, "it has not begun")


scenario(large, refused, in_json, names, failing_files, full_journal, more_than_a_pack, disturbed)
