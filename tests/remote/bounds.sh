# What 100,000 blobs of 1 KiB cost: requests, bytes, memory and time.
source "$(dirname "$0")/support.sh"
gateway
url=s3://fleet/all

# costs COMMAND...: leaves what the command says of itself in said.json. Memory: 64 MiB, and 12 for
# 100,000 blobs of a store, an index and a snapshot.
costs() {
  python3 - "$@" <<'PY'
import json, resource, subprocess, sys, time
command = sys.argv[1:]
began = time.monotonic()
with open("said.json", "w") as out:
    subprocess.run(command + ["-q", "--json"], stdout=out, check=True)
took = time.monotonic() - began
memory = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
print("%.1f s, %d MiB, %s" % (took, memory / 1024, json.load(open("said.json"))), command[1:], flush=True)
assert memory <= (64 + 12) * 1024
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
