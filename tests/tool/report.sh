# A page of a store as it is, with its damage, and of documents that are none; and what a browser
# makes of it. report.sh TOOL MODULES: MODULES is where playwright-core is, if it is.
. "$(dirname "$0")/support.sh" "$@"
modules=$2

# Names in the store's path would be markup.
store='a</script><b>&"'"'"'b'
blobring init "$store"
for i in {1..40}; do head -c $((i * 997)) < <(yes $i) >blob$i; done
blobring put "$store" blob{1..20} >hashes
blobring repack "$store"
for i in {21..40}; do blobring put "$store" blob$i >>hashes; done
sed -n '3p;30p' hashes | blobring rm "$store" -
part() { head -c $(($1 + $2)) "$store/0.jrn" | tail -c "$2"; } # OFFSET SIZE
# Two blobs of a transaction that did not end: its block is zeros.
{ part 24 16; printf '%24s' | tr ' ' '\0'; part 64 3063; } >>"$store/1.jrn"
printf '%4096s' | tr ' ' '\0' >>"$store/1.jrn"

# regions DOCUMENT FILE: its regions as "state bytes", after checking that they cover it.
regions() {
  python3 - "$1" "$2" <<'PYTHON'
import json, sys
objects = [json.loads(line) for line in open(sys.argv[1])]
size = next(o["size"] for o in objects if o["type"] == "file" and o["path"].endswith(sys.argv[2]))
at = 0
for o in objects:
    if o["type"] == "region" and o["file"].endswith(sys.argv[2]):
        assert o["begin"] == at, (o, at)
        at = o["end"]
        print(o["state"], o["end"] - o["begin"], o["live_bytes"])
assert at == size, (at, size)
PYTHON
}

blobring report --json "$store" >sound.json
# Blob 3 was deleted from the pack.
same "$(regions sound.json 1.pak | cut -d' ' -f1 | sort | uniq -c | grep dead | xargs)" "1 dead"
regions sound.json 1.jrn >states
same "$(tail -2 states | xargs)" "uncommitted 3103 0 free 4096 0"
same "$(regions sound.json 0.jrn | cut -d' ' -f1)" older
same "$(grep -c '"transaction_bin"' sound.json)" 22

# One flipped byte: the blob that it hit, and what the load then leaves out.
cp -r "$store" damaged
at=$(python3 -c 'print(open("damaged/1.jrn", "rb").read().index(open("blob35", "rb").read()))')
flip_byte damaged/1.jrn $((at + 100))
status=0
blobring report damaged -o damaged.html 2>error || status=$?
same $status 1
grep -q "<h1>Damaged: .*slot 1 of 2 is current" damaged.html
grep -q "blob <code>$(sed -n 35p hashes)</code>, 34,895 bytes" damaged.html || fail "$(grep "<li" damaged.html)"
blobring report damaged --json >damaged.json 2>error || true
same "$(regions damaged.json 1.jrn | cut -d' ' -f1 | uniq | tail -5 | xargs)" "unloaded damaged unloaded uncommitted free"

# A page from a document is the page of the store.
blobring report "$store" -o page.html
blobring report --from-json sound.json | sed -E 's/[0-9a-f]{32}//g' >again
sed -E 's/[0-9a-f]{32}//g' page.html | diff <(grep -v 'UTC by' again) <(grep -v 'UTC by' -) >/dev/null || fail "another page"
grep -q "<b>" page.html && fail "a name became markup"
[ "$(stat -c %s page.html)" -lt 3000000 ] || fail "$(stat -c %s page.html) bytes"

row() { # PATTERN SED: a document that was changed so is refused, with its line
  sed -E "$2" sound.json >bad.json
  expect 2 "$1" report --from-json bad.json
}
row "line 1: .*first object" 1d
row "line 1: no JSON object" '1s/.*/[1/'
row "line 2: \"blobs\" is not a count" '2s/"blobs":[0-9]+/"blobs":-1/'
row "line 2: \"live_bytes\" is not a count" '2s/"live_bytes":[0-9]+/"live_bytes":1e300/'
row "line 2: \"from\" is missing" '2s/"from"/"form"/'
row "line 3: \"kind\" is no word" '3s/"kind":"pack"/"kind":"<b>"/'
row "second object of type \"stat\"" '2{p}'
row "the end, and no .* \"check\"" '/^\{"type":"check"/d'
row "does not lie in its file" '/"region"/s/"end":[0-9]+/"end":999999999/'
row "a file that is not listed" '/"region"/s/1\.pak/9.pak/'
row "no object of type \"other\"" '$s/"type":"[a-z_]+"/"type":"other"/'
expect 2 "either a store or --from-json" report
script -qec "'$tool' report damaged" /dev/null </dev/null >terminal 2>&1 || true
grep -q "name a file" terminal || fail "a page on a terminal: $(cat terminal)"

if [ ! -e "$modules/playwright-core" ] || [ ! -x /usr/bin/chromium ]; then
  echo "no browser to look with"
  exit 77
fi
node "$(dirname "$0")/report_page.mjs" "$modules" "$PWD/page.html" 0
node "$(dirname "$0")/report_page.mjs" "$modules" "$PWD/damaged.html" 1
