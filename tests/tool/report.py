"""A report compared with the model of model.py: its objects, its regions byte by byte, and the page,
of which each table and finding is what the objects say, whatever a name is. And documents that are
none. `report.py TOOL CALLS MODULES` looks at pages with a browser instead; playwright-core is in
MODULES. A new column of a table goes into tables_of(), a refused document into REFUSED."""

from html import unescape

from damage import DAMAGE
from model import *

HOSTILE = "a<script><b>&\"'b\x01\n\x7f\u00e9"


def spans(view, index, faults):
    """What bytes of a file are for sure: (begin, end, state). Those that say where transactions begin
    and end count with either neighbour."""
    f, current = view.files[index], index in view.current
    length = lambda record: 36 + record[4] if record[1] else 32
    if f.state == "damaged" and not current:
        return [(0, f.size, "damaged")]
    at = 24 if index % 2 == 0 and f.sequence == -1 else min(f.end_offset, f.size)
    found = [(0, at, "unloaded" if index // 2 in view.not_shown else "older" if at > 24 else "free")]
    if index in view.walked:
        found, end, at = [(0, 24, "live" if current else "unloaded")], min(f.end_offset, f.size), f.end
        for r in f.records():
            is_live = r[1] and view.blobs.get(r[3], (0, 0, -1, -1))[2:4] == (index, r[0])
            state = "damaged" if r[0] in faults else "unloaded" if not current else "live" if is_live else "dead"
            found.append((r[0], r[0] + length(r), state))
        for begin in sorted(b for b in faults if f.damage is not None and at <= b < end):
            found += [(at, begin, "unloaded"), (begin, min(begin + 40 + faults[begin], f.size), "damaged")]
            at = max(at, found[-1][1])
        if f.damage is not None:
            found.append((at, end, "uncommitted" if view.torn else "unloaded"))
            at = max(at, end)
    rest = f.rest(at) if f.state == "sound" else None
    if rest and (rest[0].startswith("unfinished") or rest[0] == "uncommitted_transaction" and current):
        found.append((at, min(max(at + 40, *(r[0] + length(r) for r in rest[2]), 0), f.size), "uncommitted"))
        at = found[-1][1]
    return [*found, (at, f.size, "older" if any(f.data[at:]) else "free")]


def check_regions(view, objects, faults):
    for index, f in enumerate(view.files):
        regions = [o for o in objects if o["file"] == f.path]
        same([*(o["begin"] for o in regions), f.size], [0, *(o["end"] for o in regions)], f"{f.path} is covered")
        sure = [s for s in spans(view, index, {at: size for path, at, _, size in faults if path == f.path}) if s[0] < s[1]]
        same(len(regions) <= 1000 + 3 * sum(s[2] not in ("live", "dead") for s in sure), True, f"{len(regions)} regions of {f.path}")
        for o in regions:
            sums = {"live": 0, "dead": 0}
            while sure and sure[0][0] < o["end"]:
                begin, end, state = sure[0]
                same(state == o["state"] or o["state"] == "mixed" and state in sums, True, f"{begin} to {end} of {f.path} is {state}, the report says {o}")
                sums[state] = sums.get(state, 0) + min(end, o["end"]) - max(begin, o["begin"])
                if end > o["end"]:
                    break
                sure.pop(0)
            most = o["end"] - o["begin"] - sums["dead"] if o["state"] in ("live", "mixed") else 0
            same(sums["live"] <= o["live_bytes"] <= most, True, f"{sums['live']} to {most} live bytes in {f.path}, the report says {o}")


def bins(view):
    totals, sizes = {}, {}  # stores, their bytes, deletions, their bytes
    for _, is_store, id, hash, size, _ in (r for index in view.current for r in view.files[index].records()):
        sizes[hash] = size if is_store else sizes.get(hash, 0)
        totals.setdefault(id, [0, 0, 0, 0])[0 if is_store else 2] += 1
        totals[id][1 if is_store else 3] += sizes[hash]
    ids = sorted(totals)
    step = -(-len(ids) // 200) or 1
    for group in (ids[k : k + step] for k in range(0, len(ids), step)):
        sums = zip(("stores", "stored_bytes", "deletes", "deleted_bytes"), map(sum, zip(*(totals[id] for id in group))))
        yield dict(type="transaction_bin", first_id=group[0], last_id=group[-1], first_time=time_of(group[0]), last_time=time_of(group[-1]),
                   transactions=len(group), **dict(sums))


def page_of(text):
    """The tables by their captions, the kinds of the findings, the heading, title and path: all without markup."""

    def plain_text(html):
        same("<" in html or '"' in html, False, f"markup in {html}")
        return unescape(html)

    tables = {}
    for label, caption, rows in re.findall(r'aria-label="([^"]*)"><table class="[a-z-]+"><caption>([^<]*)</caption>(.*?)</tbody>', text, re.S):
        same(label, caption, "a label")
        rows = rows.partition("<tbody>\n")[2].split("<tr>")[1:]
        tables[plain_text(caption)] = [[plain_text(cell.rstrip("\n")) for cell in re.split("<td[^>]*>", row)[1:]] for row in rows]
    lines = [plain_text(re.search(form, text)[1]) for form in ("<h1>(.*)</h1>", "<title>(.*)</title>", '<p class="path">(.*)</p>')]
    return tables, re.findall('<li class="([a-z]+)"', text), lines


def tables_of(objects):
    def row(o, keys):
        return [f"{o[key]:,}" if type(o[key]) is int and key != "sequence" else str(o[key]) for key in keys.split()]

    of = lambda type: [dict(o) for o in objects if o["type"] == type]
    span = lambda first, last: str(first) if first == last else f"{first} to {last}"
    files, regions, bins, tables = of("file"), of("region"), of("transaction_bin"), {}
    for f in files:
        own = [r | {"bytes": r["end"] - r["begin"]} for r in regions if r["file"] == f["path"]]
        f |= {"current": "current" if f["current"] else "not shown" if f["not_shown"] else "", "head": f"header {f['header']}", "slot": "" if f["slot"] is None else f["slot"], "path": visible(f["path"])}
        f["name"] = os.path.basename(f["path"])
        tables[f"Regions of {f['name']}"] = [row(r, "begin end bytes state live_bytes") for r in own]
    for b in bins:
        b["ids"] = span(b["first_id"], b["last_id"])
        b["times"] = span(b["first_time"], b["last_time"]) if b["first_time"] and b["last_time"] else ""
    slots = [row(p, "slot current sequence head size") + row(j, "head size") for p, j in zip(files[::2], files[1::2])]
    return tables | {
        "Slots": slots,
        "Files": [row(f, "name slot kind current sequence header size end_offset path") for f in files],
        "Sizes of blobs": [row(s, "from to blobs bytes") for s in objects[1]["sizes"]],
        "Bytes by transaction": [row(b, "ids times transactions stores stored_bytes deletes deleted_bytes") for b in bins],
    }


def visible(text):
    return re.sub("[\0-\x1f\x7f]", "\ufffd", text)


def check_report(view):
    for more in ([], ["--check"]):
        got = tool("report", "--json", view.path, *more)
        by = lambda *types: [o for o in plain(got.objects) if o["type"] in types]
        check = by("check")[0]
        same(by("stat", "file"), spelled(view.stat()), f"stat of {view.path}")
        same(by("fault", "check"), spelled(view.check(bool(more))), f"check of {view.path}")
        same(by("transaction_bin"), list(bins(view)), f"transactions of {view.path}")
        same(got.status, int(not check["sound"]), f"status of {view.path}")
        check_regions(view, by("region"), view.faults(bool(more)))
        page = tool("report", view.path, *more, status=got.status).out.decode()
        (tables, findings, lines), stat, wanted = page_of(page), got.objects[1], tables_of(got.objects)
        same(sorted(tables), sorted(wanted), "tables")
        for caption in wanted:
            same(tables[caption], wanted[caption], f"{view.path}: the table {caption}")
        verdict, path = "Sound" if check["sound"] else "Damaged", visible(view.path)
        same([lines[0].split(":")[0], *lines[1:]], [verdict, f"{verdict}: {path}", visible(f"{os.path.abspath(view.path)} on {os.uname().nodename}")], "what heads the page")
        same(findings, ["damage"] * (len(stat["findings"]) + check["faults"]) + ["note"] * len(stat["set_aside"]), f"{view.path}: findings")
        again = tool("report", "--from-json", "-", stdin=got.out, status=got.status).out.decode()
        without = lambda text: re.sub(r"[0-9a-f]{32}|[0-9-]+ [0-9:]+ UTC by", "", text)
        same(without(again) == without(page), True, "a page from a document is another")


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
        got = tool("report", "--from-json", "-", stdin=re.sub(old, new, document, count=1).encode(), status=2)
        same(bool(re.search(message, got.err)), True, f"{message}: {got.err}")
    for at in range(1, 12):  # of a store that grows while it is read
        grown = tool("report", "--json", "s", calls={"CALLS": " pread64 ", "CALLS_AT": at, "CALLS_DO": f"yes {at} | head -c 9000 | '{TOOL}' put -q s - >/dev/null"}, status=0)
        tool("report", "--from-json", "-", stdin=grown.out, status=0)
    full = re.sub('"journal_bytes":[0-9]+', f'"journal_bytes":{MAX_FILE * 9 // 10}', document)
    same(page_of(tool("report", "--from-json", "-", stdin=full.encode(), status=0).out.decode())[1], ["warning"], "a journal that is nearly full")


def in_a_browser():
    modules = os.path.join(START_DIRECTORY, sys.argv[3])
    if not os.path.exists(f"{modules}/playwright-core") or not os.path.exists("/usr/bin/chromium"):
        print("no browser to look with: scripts/install-report, and chromium")
        sys.exit(77)
    base(HOSTILE)
    shutil.copytree(HOSTILE, "damaged")
    change("damaged/1.jrn", pathlib.Path("damaged/1.jrn").read_bytes().index(BLOBS[7]) + 100)
    tool("init", "cut", status=0)
    day = 24 * 3600 * 10**6
    put_files("cut", _0jrn=file(0, 0, *(transaction(ID + k * day // 20, store(ID + k * day // 20, BLOBS[k % 10])) for k in range(80))))
    os.truncate("cut/0.jrn", os.path.getsize("cut/0.jrn") // 2)
    looks = []
    for name, *wanted in ((HOSTILE, "Sound", "0", "1"), ("damaged", "Damaged", "1", "1"), ("cut", "Damaged", "1", "2")):
        tool("report", name, "-o", f"{name[:3]}.html", "--check", status=int(wanted[0] == "Damaged"))
        looks += [os.path.abspath(f"{name[:3]}.html"), *wanted]
    subprocess.run(["node", f"{SOURCES}/report_page.mjs", modules, *looks], check=True)


START_DIRECTORY, SOURCES = os.getcwd(), os.path.dirname(os.path.abspath(__file__))
scenario(*([in_a_browser] if len(sys.argv) > 3 else [of_every_store, of_large_and_hostile_stores, documents]))
