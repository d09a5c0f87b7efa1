"""A report compared with the model of model.py: its objects, its regions byte by byte, and the page,
of which each table and finding is what the objects say, whatever a name is. And documents that are
none. `report.py TOOL CALLS MODULES` looks at pages with a browser instead; playwright-core is in
MODULES. A new column of a table goes into tables_of(), a refused document into REFUSED."""

import pty
from html import unescape

from damage import DAMAGE
from model import *

HOSTILE = "a<script><b>&\"'b\x01\n\x7f\u00e9"


def spans(view, index, faults):
    """What bytes of a file are for sure: (begin, end, state). Those that say where transactions begin
    and end count with either neighbour."""
    f, current = view.files[index], index in view.current
    if f.state == "damaged" and not current:
        return [(0, f.size, "damaged")]
    found, at = [], f.end_offset
    if index in view.walked:
        found.append((0, 24, "live" if current else "unloaded"))
        for offset, is_store, _, hash, size, _ in f.records():
            is_live = is_store and view.blobs.get(hash, (0, 0, -1, -1))[2:4] == (index, offset)
            state = "damaged" if offset in faults else "unloaded" if not current else "live" if is_live else "dead"
            found.append((offset, offset + (36 + size if is_store else 32), state))
        if f.damage is not None and view.torn:
            found.append((f.end, f.end_offset, "uncommitted"))
        elif f.damage is not None:
            end, done = min(f.end_offset, f.size), f.end
            for begin in sorted(b for b in faults if f.end <= b < end):
                found += [(done, begin, "unloaded"), (begin, min(begin + 40 + faults[begin], f.size), "damaged")]
                done = max(done, found[-1][1])
            found.append((done, end, "unloaded"))
        at = max([f.end, *(span[1] for span in found)])
    else:
        at = 24 if index % 2 == 0 and f.sequence == -1 else min(f.end_offset, f.size)
        found.append((0, at, "older"))
    rest = f.rest(at) if f.state == "sound" else None
    if rest and (rest[0].startswith("unfinished") or rest[0] == "uncommitted_transaction" and current):
        ends = [r[0] + (36 + r[4] if r[1] else 32) for r in rest[2]]
        begin, at = at, min(max([at + 40, *ends]), f.size)
        found.append((begin, at, "uncommitted"))
    return [*found, (at, f.size, "older" if any(f.data[at:]) else "free")]


def check_regions(view, objects, faults):
    for index, f in enumerate(view.files):
        regions = [o for o in objects if o["file"] == f.path]
        same([o["begin"] for o in regions] + [f.size], [0] * bool(f.size) + [o["end"] for o in regions] or [0], f"{f.path} is covered")
        sure = [s for s in spans(view, index, {at: size for path, at, _, size in faults if path == f.path}) if s[0] < s[1]] if f.size else []
        others = sum(s[2] not in ("live", "dead") for s in sure)
        same(len(regions) <= 1000 + 3 * others, True, f"{len(regions)} regions of {f.path}")
        at = 0
        for o in regions:
            live = dead = 0
            while at < len(sure) and sure[at][0] < o["end"]:
                begin, end, state = sure[at]
                allowed = (o["state"], "mixed") if o["state"] in ("live", "dead") else (o["state"],) if o["state"] != "mixed" else ("live", "dead")
                same(state in allowed, True, f"{begin} to {end} of {f.path} is {state}, the report says {o}")
                part = min(end, o["end"]) - max(begin, o["begin"])
                live, dead = live + part * (state == "live"), dead + part * (state == "dead")
                if end > o["end"]:
                    break
                at += 1
            most = o["end"] - o["begin"] - dead if o["state"] in ("live", "mixed") else 0
            same(live <= o["live_bytes"] <= most, True, f"{live} to {most} live bytes in {f.path}, the report says {o}")


def bins(view):
    totals, sizes = {}, {}
    for index in view.current:
        for _, is_store, id, hash, size, _ in view.files[index].records():
            total = totals.setdefault(id, [0, 0, 0, 0])
            sizes[hash] = size if is_store else sizes.get(hash, 0)
            total[0 if is_store else 2] += 1
            total[1 if is_store else 3] += sizes[hash]
    ids = sorted(totals)
    step = -(-len(ids) // 200)
    for group in (ids[k : k + step] for k in range(0, len(ids), step or 1)):
        sums = [sum(totals[id][k] for id in group) for k in range(4)]
        yield {"type": "transaction_bin", "first_id": group[0], "last_id": group[-1], "first_time": time_of(group[0]),
               "last_time": time_of(group[-1]), "transactions": len(group),
               **dict(zip(("stores", "stored_bytes", "deletes", "deleted_bytes"), sums))}


def page_of(text):
    """The tables by their captions, what the findings are, the heading, the title and the path. In none is markup."""

    def plain_text(html):
        same("<" in html or '"' in html, False, f"markup in {html}")
        return unescape(html)

    tables = {}
    for label, caption, rows in re.findall(r'aria-label="([^"]*)"><table class="[a-z-]+"><caption>([^<]*)</caption>(.*?)</tbody>', text, re.S):
        same(label, caption, "a label")
        rows = rows.partition("<tbody>\n")[2].split("<tr>")[1:]
        tables[plain_text(caption)] = [[plain_text(cell.rstrip("\n")) for cell in re.split("<td[^>]*>", row)[1:]] for row in rows]
    lines = [plain_text(re.search(form, text)[1]) for form in ("<h1>([^\n]*)</h1>", "<title>([^\n]*)</title>", '<p class="path">([^\n]*)</p>')]
    return tables, re.findall('<li class="([a-z]+)"', text), lines


def visible(text):
    return re.sub("[\0-\x1f\x7f]", "\ufffd", text)


def tables_of(objects):
    of = lambda type: [o for o in objects if o["type"] == type]
    n = lambda number: f"{number:,}"
    span = lambda first, last: str(first) if first == last else f"{first} to {last}"
    time = str
    name = lambda path: visible(os.path.basename(path))
    slot = lambda f: "" if f["slot"] is None else n(f["slot"])
    mark = lambda f: "current" if f["current"] else ""
    files = of("file")
    return {
        "Slots": [[slot(p), mark(p), str(p["sequence"]), p["header"], n(p["size"]), j["header"], n(j["size"])] for p, j in zip(files[::2], files[1::2])],
        "Files": [[name(f["path"]), slot(f), f["kind"], mark(f), str(f["sequence"]), f["header"], n(f["size"]), n(f["end_offset"]), visible(f["path"])] for f in files],
        "Sizes of blobs": [[n(s[key]) for key in ("from", "to", "blobs", "bytes")] for s in objects[1]["sizes"]],
        "Bytes by transaction": [
            [span(b["first_id"], b["last_id"]), span(time(b["first_time"]), time(b["last_time"])) if b["first_time"] and b["last_time"] else "",
             *(n(b[key]) for key in ("transactions", "stores", "stored_bytes", "deletes", "deleted_bytes"))] for b in of("transaction_bin")],
        **{f"Regions of {name(f['path'])}": [[n(r["begin"]), n(r["end"]), n(r["end"] - r["begin"]), r["state"], n(r["live_bytes"])]
                                             for r in of("region") if r["file"] == f["path"]] for f in files},
    }


def check_page(text, objects, what):
    (tables, findings, lines), stat, wanted = page_of(text), objects[1], tables_of(objects)
    same(sorted(tables), sorted(wanted), f"{what}: tables")
    for caption in tables:
        same(tables[caption], wanted[caption], f"{what}: the table {caption}")
    verdict = "Sound" if objects[-1]["sound"] else "Damaged"
    same([lines[0].split(":")[0], *lines[1:]], [verdict, visible(f"{verdict}: {stat['store']}"), visible(stat["store"])], what)
    kinds = ["damage"] * (len(stat["findings"]) + objects[-1]["faults"]) + ["note"] * len(stat["set_aside"])
    same(findings, kinds, f"{what}: findings")


def check_report(view):
    for more in ([], ["--check"]):
        got = tool("report", "--json", view.path, *more)
        by = lambda *types: [o for o in plain(got.objects) if o["type"] in types]
        same(by("stat", "file"), spelled(view.stat()), f"stat of {view.path}")
        order = lambda o: (o["type"] == "check", o.get("file"), o.get("offset"))
        same(sorted(by("fault", "check"), key=order), sorted(spelled(view.check(bool(more))), key=order), f"check of {view.path}")
        same(by("transaction_bin"), list(bins(view)), f"transactions of {view.path}")
        same(got.status, int(not by("check")[0]["sound"]), f"status of {view.path}")
        if view.path.isprintable():
            check_regions(view, by("region"), view.faults(bool(more)))
        page = tool("report", view.path, *more, status=got.status).out.decode()
        summary = [got.objects[0], *(o for o in got.objects[1:] if o["type"] != "check"), *by("check")]
        check_page(page, summary, f"the page of {view.path}")
        again = tool("report", "--from-json", "-", stdin=got.out, status=got.status).out.decode()
        plain_page = lambda text: re.sub(r"[0-9a-f]{32}|[0-9-]+ [0-9:]+ UTC by", "", text)
        same(plain_page(again) == plain_page(page), True, "a page from a document is another")


def of_every_store():
    for _, damage, options in DAMAGE:
        shutil.rmtree("s", ignore_errors=True)
        base("s")
        damage()
        check_report(View("s", torn=options.get("torn", False)))


def of_large_and_hostile_stores():
    base(HOSTILE)
    check_report(View(HOSTILE))
    shutil.copy(f"{HOSTILE}/1.pak", f"{HOSTILE}.pak")
    check_report(View(f"{HOSTILE}.pak"))
    tool("init", "many", status=0)
    stores = [store(1000 + k // 10, b"%09d" % k) for k in range(5000)]
    deletions = [transaction(2000 + k, delete(2000 + k, md5(b"%09d" % (k * 3)))) for k in range(1500)]
    put_files("many", _0pak=file(1, 0, transaction(0, *stores)), _0jrn=file(0, 0, *deletions))
    check_report(View("many"))
    # A repack that has begun over an older generation, and one that has not ended.
    base("s")
    started = begun(0) + stores[0]
    for data in (file(1, -1) + transaction(0, *stores[:3]), file(1, -1) + started, file(1, -1) + bytes(500), file(1, -1, end=109) + started):
        put_files("s", _0pak=data)
        check_report(View("s"))


REFUSED = (  # what the message says, and a document in which this is replaced
    ("line 1: .*first object", r"\A.*\n", ""),
    ("line 1: no JSON object", r"\A.*", "[1"),
    ('line 2: "blobs" is not a count', '"blobs":[0-9]+', '"blobs":-1'),
    ('line 2: "live_bytes" is not a count', '"live_bytes":[0-9]+', '"live_bytes":1e300'),
    ('line 2: "from" is missing', '"from"', '"form"'),
    ('line 3: "kind" is no word', '"kind":"pack"', '"kind":"<b>"'),
    ('second object of type "stat"', r'(\{"type":"stat".*\n)', r"\1\1"),
    ('the end, and no .* "check"', r'\{"type":"check".*\n', ""),
    ("does not lie in its file", r'("region".*"end":)[0-9]+', r"\g<1>999999999"),
    ("region", r'("begin":)0(,"end":)[0-9]+', r"\g<1>0\g<2>0"),
    ("region", r'("region".*"live_bytes":)[0-9]+', r"\g<1>999999"),
    ("a file that is not listed", r'("region".*)1\.pak', r"\g<1>9.pak"),
    ('no object of type "other"', r'"type":"[a-z_]+"(?=[^\n]*\n\Z)', '"type":"other"'),
)


def documents():
    base("s")
    document = tool("report", "--json", "s", status=0).out.decode()
    for message, old, new in REFUSED:
        changed = re.sub(old, new, document, count=1)
        same(changed != document, True, f"{old} is in the document")
        same(re.search(message, tool("report", "--from-json", "-", stdin=changed.encode(), status=2).err) is not None, True, message)
    full = re.sub('"journal_bytes":[0-9]+', f'"journal_bytes":{MAX_FILE * 9 // 10}', document)
    for text, wanted in ((document, []), (full, ["warning"])):
        same(page_of(tool("report", "--from-json", "-", stdin=text.encode(), status=0).out.decode())[1], wanted, "findings")
    tool("report", status=2)
    ours, terminal = pty.openpty()
    same(subprocess.run([TOOL, "report", "s"], stdout=terminal, stderr=subprocess.DEVNULL).returncode, 2, "a page on a terminal")
    os.close(ours)


def in_a_browser():
    modules = os.path.abspath(sys.argv[3])
    if not os.path.exists(f"{modules}/playwright-core") or not os.path.exists("/usr/bin/chromium"):
        print("no browser to look with: scripts/install-report, and chromium")
        sys.exit(77)
    base(HOSTILE)
    for faults in (0, 1):
        tool("report", HOSTILE, "-o", "page.html", "--check")
        subprocess.run(["node", f"{os.path.dirname(__file__)}/report_page.mjs", modules, os.path.abspath("page.html"), str(faults)], check=True)
        change(f"{HOSTILE}/1.jrn", pathlib.Path(f"{HOSTILE}/1.jrn").read_bytes().index(BLOBS[7]) + 100)


scenario(*([in_a_browser] if len(sys.argv) > 3 else [of_every_store, of_large_and_hostile_stores, documents]))
