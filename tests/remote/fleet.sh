# A fleet: three stores with common blobs, one remote.
source "$(dirname "$0")/support.sh"
gateway
url=s3://fleet/all

expect 4 "does not exist" remote init "$url"
expect 2 "must be longer" remote init "$url" --grace 1h
expect 0 "^.\"type\":\"remote_init\",\"url\":\"$url\",\"id\":\"[0-9a-f]+\"}$" remote init --json "$url" --create-bucket
expect 2 "is a remote already" remote init "$url"
expect 1 "is not a remote" remote ls s3://fleet/other
expect 4 "no whole snapshot" pull a "$url"

store a 1 2000
store b 1001 3000
store c 2001 4000

# A push sends what no other has sent; the same again sends a snapshot alone.
blobring push -q --json a "$url" -m first >a.json
same "$(field blobs <a.json)" 2000
blobring push -q --json a "$url" >a.json
same "$(field blobs <a.json) $(field requests <a.json)" "0 6"
same "$(blobring push -q --json b "$url" | field blobs)" 1000
same "$(blobring push -q --json c "$url" | field blobs)" 1000
same "$(blobring remote ls "$url" | wc -l)" 4
same "$(find a/remote -perm /077)" ""
expect 0 "  first$" remote ls "$url"
expect 0 "nothing is wrong" remote check "$url" --read-data
gives "$url" c
gives "$url" a "$(cat a/remote/id)"
has back a
blobring sync -q a "$url" >/dev/null
has a c

same "$(blobring remote ls "$url" --older-than 1d)" ""
blobring push -q b "$url" --cache other >/dev/null
sleep 2
expect 1 "^$(cat other/id)/" remote ls "$url" --older-than 1s
same "$(wc -l <expect.out)" 4
expect 0 "^.\"type\":\"forgotten\",\"store\":\"$(cat other/id)\",\"snapshots\":1}$" remote forget --json "$url" "$(cat other/id)"
expect 4 "has no snapshot" remote forget "$url" "$(cat other/id)"

# What lies beside a store is lost, and its id written back: its numbers go on.
id=$(cat a/remote/id)
rm -r a/remote
mkdir a/remote
echo 17.bytes.of.junk >a/remote/id
expect 1 "does not hold the store's id" push a "$url"
echo "$id" >a/remote/id
blobring push a "$url" -q | grep -q "^$id/000000000004-" || fail "the number is not 4"
expect 0 "^$id/000000000004-[^ ]*  $(hostname)  " remote ls "$url"

# Packs are of the store's own format.
s3 "?list-type=2&prefix=all%2Fpacks%2F" | grep -o '<Key>[^<]*' | cut -c6- >packs
while read -r key; do
  s3 "/$key" -o one.pak
  same "$(hash one.pak)" "$(basename "$key" | cut -c-32)"
  expect 0 "sound" check one.pak
done <packs

# What the service has changed or lost is found, and comes back as far as others have it.
blobring push -q a "$url" >/dev/null
key=$(head -n 1 packs)
s3 "/$key" -o one.pak
cp one.pak bad.pak
damage bad.pak 5000
s3 "/$key" -T bad.pak
expect 1 "has the digest" remote check "$url"
expect 1 "does not match the digest in its name" remote check "$url" --read-data
truncate -s -1 bad.pak
s3 "/$key" -T bad.pak
expect 1 "bytes instead of" remote check "$url"
s3 "/$key" -X DELETE
expect 1 "packs/.* is missing" remote check "$url"
blobring init -q new
expect 1 "is gone or damaged" pull new "$url" --snapshot "$(cat a/remote/id)"
expect 1 "are in no sound pack" remote prune "$url"
blobring push -q a "$url" >/dev/null
blobring remote prune -q "$url" # it drops the pack from the index
expect 0 "nothing is wrong" remote check "$url"
gives "$url" a
for index in $(s3 "?list-type=2&prefix=all%2Findex%2F" | grep -o '<Key>[^<]*' | cut -c6-); do
  s3 "/$index" -X DELETE
done
expect 1 "lacks 2000 blobs of 2000" remote check "$url"
expect 1 "which no index has" pull new "$url" --snapshot "$(cat a/remote/id)"
expect 0 "packs that no index named: indexed" remote prune "$url"
expect 0 "all indexed; nothing is wrong" remote check "$url" --read-data
gives "$url" a

# Objects that are none of ours, or damaged, stop nobody. Each is named, and stays.
blobring remote init -q s3://fleet/junk --push-within 6s --grace 7s
blobring push -q c s3://fleet/junk >/dev/null
s3 "/$(keys junk index)" -o real.index
s3 "/$(keys junk snapshots)" -o real.snapshots
python3 - <<'PY'
import hashlib, os
def put(key, data):
    os.makedirs(os.path.dirname("junk/" + key), exist_ok=True)
    open("junk/" + key, "wb").write(data)
for key in "index/readme", "gc/a b&<c>", "snapshots/me", "snapshots/short/000000000001-" + "0" * 32 + ".snap", "packs/readme":
    put(key, b"junk")
store = open("c/remote/id").read().strip()
names = {"index": "index/{0}-{1:016x}.idx", "snapshots": "snapshots/" + store + "/{1:012}-{0}.snap", "gc": "gc/{1:016x}.tomb"}
for kind in names:
    real = open("real." + kind, "rb").read() if kind != "gc" else hashlib.md5(b"x\n").hexdigest().encode() + b"\nx\n"
    line = real.index(b"\n")
    bad = [b"", b"\0" * 100, real[:line], real[:line + 1], real[:-1], real + b"x", b"\xff" + real, real[:9] + b"\xff" + real[10:],
           b"{}\n", b"[" * 100000, b"{\"a\":" * 50000 + b"\n", b"blobring index 1 18446744073709551616 1\n", b"blobring index 1 -1 -1\n",
           b"blobring index 1 0 1\n" + b"\0" * 28, real.replace(b"2000", b"4000000000", 1), real.replace(b'"time":"', b'"time":7,"x":"', 1)]
    for n, data in enumerate(data for data in bad if data != real or kind == "gc"):
        put(names[kind].format(hashlib.md5(data).hexdigest(), n), data)
    if kind != "gc":
        put(names[kind].format("0" * 32, 99), real)
PY
(cd junk && find . -type f | cut -c3-) >table
litter() {
  while read -r key; do
    s3 "/junk/$(python3 -c 'import sys, urllib.parse; print(urllib.parse.quote(sys.argv[1]))' "$key")" -T "junk/$key"
  done <table
}
litter
same "$(blobring push -q --json c s3://fleet/junk 2>/dev/null | field blobs)" 0
expect 1 "$(wc -l <table) findings" remote check s3://fleet/junk
while read -r key; do grep -qF -- "$key" expect.out || fail "$key is not named"; done <table
litter # and is the newest: the last whole snapshot is another
sleep 9
for _ in 1 2; do
  blobring remote prune -q s3://fleet/junk --keep-last 1 2>/dev/null
  sleep 9
done
same "$(for kind in index gc snapshots packs; do keys junk $kind; done | wc -l)" "$(($(wc -l <table) + 3))"
gives s3://fleet/junk c 2>/dev/null

# The policy of the document: a device can use its own prefix alone, and the owner all of them.
sed -n '/^```json/,/^```$/p' "$here/../../docs/fleet.md" | grep -v '```' | sed s,user/fleet,user/test, >policy
admin user create --uid=device-17 --display-name=device --access-key=device17 --secret-key=secret17
s3 "?policy=" -T policy
blobring remote init -q s3://fleet/device-17
as_device() { AWS_ACCESS_KEY_ID=device17 AWS_SECRET_ACCESS_KEY=secret17 "$@"; }
for n in 1 2; do as_device blobring push -q c s3://fleet/device-17 >/dev/null; done
as_device expect 0 "nothing is wrong" remote check s3://fleet/device-17
as_device expect 1 "AccessDenied" push c "$url"
as_device expect 1 "AccessDenied" remote prune s3://fleet/device-17 --keep-last 1
gives s3://fleet/device-17 c
expect 0 "1 forgotten" remote prune s3://fleet/device-17 --keep-last 1

# The commands that the document begins with.
blobring init -q other-store
sed -n 's/^\$ \(blobring [^#]*\).*/\1/p' "$here/../../docs/fleet.md" | sed "s,fleet/all,doc/all,; s,/data/store,b,; s,/data/other,other-store,; s,2144b8a1a2c442e4,$(cat b/remote/id)," >shown
same "$(wc -l <shown)" 6
while read -r command; do eval "$command" &>expect.out || fail "$command: $(cat expect.out)"; done <shown
has other-store b

# Of a damaged store what can be read is pushed, and called partial.
blobring remote init -q s3://fleet/damaged
damage "$(ls -S a/*.jrn | sed -n 1p)" 3000000
expect 1 "the snapshot is partial: a is damaged" push a s3://fleet/damaged
rm -r new
blobring init -q new
expect 4 "no whole snapshot" pull new s3://fleet/damaged
expect 0 "is partial" pull new s3://fleet/damaged --snapshot "$(cat a/remote/id)"
same "$(names new | wc -l)" 2000

# A push compares what it sends: one blob is in its store under a wrong hash, and a digest covers it.
blobring remote init -q s3://fleet/wrong
blobring init -q wrong
for file in a.json packs; do blobring put -q wrong $file >/dev/null; done
python3 - <<'PY'
import hashlib
journal = bytearray(open("wrong/0.jrn", "rb").read())
journal[80] ^= 255 # of the hash: docs/format.md
journal[48:64] = hashlib.md5(journal[64:64 + int.from_bytes(journal[44:48], "little")]).digest()
open("wrong/0.jrn", "wb").write(journal)
PY
expect 1 "the snapshot is partial: wrong is damaged, 1 blob could not be read" push wrong s3://fleet/wrong
expect 0 "1 blob of 1 snapshot in 1 pack, all indexed; nothing is wrong" remote check s3://fleet/wrong --read-data
