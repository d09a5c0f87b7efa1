# What 100,000 blobs of 1 KiB cost: requests, bytes, memory and time.
source "$(dirname "$0")/support.sh"
gateway
url=s3://fleet/all

# costs COMMAND...: leaves what the command says of itself in said.json. Memory: 192 MiB, and 12 for
# 100,000 blobs of a store, an index and a snapshot; or $most.
costs() {
  python3 - "${most:-204}" "$@" <<'PY'
import json, resource, subprocess, sys, time
most, *command = sys.argv[1:]
began = time.monotonic()
with open("said.json", "w") as out:
    subprocess.run(command + ["-q", "--json"], stdout=out, check=True)
took = time.monotonic() - began
used = resource.getrusage(resource.RUSAGE_CHILDREN)
print("%.1f s, %.1f s of CPU, %d MiB, %s" % (took, used.ru_utime + used.ru_stime, used.ru_maxrss / 1024,
                                           json.load(open("said.json"))), command[1:], flush=True)
assert used.ru_maxrss <= int(most) * 1024
PY
}
at_most() { [ "$(field "$1" <said.json)" -le "$2" ] || fail "$1: more than $2: $(cat said.json)"; }

blobring remote init -q "$url" --create-bucket
store all 1 100000
costs "$tool" push all "$url"
at_most requests 20
at_most bytes_sent 115000000
costs "$tool" push all "$url"
at_most requests 6
blobring init -q back
costs "$tool" pull back "$url"
has back all

# Of scattered blobs little more than themselves is read.
names all | awk 'NR % 1000 == 7' >lost
blobring rm -q back - <lost
costs "$tool" pull back "$url"
same "$(field blobs <said.json)" 100
at_most bytes_received $((3 * 100 * 1024))
has back all

# What ${STORES:-100} other stores of 10,000 blobs each have there takes no memory.
python3 - "${STORES:-100}" <<'PY'
import hashlib, os, struct, sys
def put(key, data):
    os.makedirs(os.path.dirname("many/" + key), exist_ok=True)
    open("many/" + key, "wb").write(data)
md5 = lambda data: hashlib.md5(data).hexdigest()
for n in range(int(sys.argv[1])):
    pack = os.urandom(1000 + 36 + 16)
    name = "%s-%016x" % (md5(pack), n)
    hashes = sorted(os.urandom(16) for _ in range(10000))
    index = b"blobring index 1 1 10000\n%s\n" % name.encode() + b"".join(h + struct.pack("<III", 0, 0, 1000) for h in hashes)
    snapshot = (b'{"time":"","message":"","partial":false,"blobs":10000,"bytes":10000000}\n') + b"".join(hashes)
    put("packs/%s/%s.pak" % (name[:2], name), pack)
    put("index/%s-%016x.idx" % (md5(index), n), index)
    put("snapshots/%016x/000000000001-%s.snap" % (n, md5(snapshot)), snapshot)
PY
url=s3://fleet/many
blobring remote init -q "$url"
find many -type f | while read -r key; do printf 'upload-file=%s\nurl=%s\n' "$key" "$ENDPOINT/fleet/$key"; done >uploads
s3 "" --parallel -K uploads >uploaded 2>&1
store one 1 10000
most=40 costs "$tool" push one "$url"
echo new | blobring put -q one - >/dev/null
most=40 costs "$tool" push one "$url"
same "$(field blobs <said.json)" 1
at_most requests 8
at_most bytes_received 2000000
most=1000 costs "$tool" remote prune "$url"
same "$(field snapshots_kept <said.json)" "$((${STORES:-100} + 2))"
