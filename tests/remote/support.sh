# Shared by the scenarios: a gateway for each, in a directory that goes away at the end.
# Source it with the tool's path as $1.
set -eEuo pipefail
export LC_ALL=C

tool=$1
work=$(mktemp -d)
trap 'echo "FAILED, $0 line $LINENO: $BASH_COMMAND" >&2' ERR
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd -P)
cd "$work"

fail() {
  echo "FAILED, line ${BASH_LINENO[-2]}: $*" >&2
  exit 1
}

blobring() { "$tool" "$@"; }

# expect STATUS PATTERN ARGUMENT...: runs the tool; its exit status must be
# STATUS, and what it prints must match the extended regular expression PATTERN.
expect() {
  local wanted=$1 pattern=$2 status=0
  shift 2
  timeout 120 "$tool" "$@" >expect.out 2>&1 </dev/null || status=$?
  [ "$status" -eq "$wanted" ] || fail "blobring $*: status $status, wanted $wanted: $(cat expect.out)"
  grep -qaE -e "$pattern" expect.out || fail "blobring $*: wanted \"$pattern\", got: $(cat expect.out)"
}

same() { [ "$1" = "$2" ] || fail "wanted \"$2\", got \"$1\""; }

hash() { md5sum "$@" | cut -c-32; }

damage() { printf damaged | dd of="$1" bs=1 seek="$2" conv=notrunc status=none; } # FILE OFFSET
trap '"$here/../../scripts/rgw-down" "$work/gw"; kill $(jobs -p) 2>/dev/null || true; rm -rf "$work"' EXIT
export TMPDIR=$work

gateway() { # [KIND [BYTES]]: starts it, or what is missing of it
  "$here/../../scripts/rgw-up" "$work/gw" "${1:-memstore}" "${@:2}" >gw.env
  set -a
  source ./gw.env
  set +a
  export AWS_ENDPOINT_URL=${through:-$ENDPOINT} AWS_CA_BUNDLE=$CA_FILE
}

admin() { timeout 60 radosgw-admin -n client.rgw.a --admin-socket= --log-file= "$@" >/dev/null; }

# s3 TARGET [OPTION...]: a request as another client sends it
s3() {
  curl -sf --aws-sigv4 aws:amz:us-east-1:s3 -u "$AWS_ACCESS_KEY_ID:$AWS_SECRET_ACCESS_KEY" \
    -H "x-amz-content-sha256: UNSIGNED-PAYLOAD" "${@:2}" "$ENDPOINT/fleet$1"
}

keys() { s3 "?list-type=2&prefix=$1%2F$2%2F" | grep -o '<Key>[^<]*' | cut -c6-; } # PREFIX KIND

# From now on requests go through a proxy, which does what the file `control` says.
proxy() {
  : >control
  "$here/fault-proxy" "${ENDPOINT##*:}" control >proxy.out &
  until grep -q PORT= proxy.out; do sleep 0.1; done
  through=http://127.0.0.1:$(cut -d= -f2 proxy.out)
  export AWS_ENDPOINT_URL=$through
}

# store NAME FIRST LAST: a store of blobs of 1 KiB, each of which depends on its number alone
store() {
  rm -rf "$1" tree
  blobring init -q "$1"
  mkdir tree
  seq "$2" "$3" | python3 -c 'import hashlib, sys
for n in sys.stdin.read().split():
    open("tree/" + n, "wb").write(hashlib.shake_128(n.encode()).digest(1024))'
  blobring import -q "$1" tree >/dev/null
}

names() { blobring ls "$1" 2>/dev/null | cut -c-32 | sort; }

# has STORE OTHER...: every blob of the others, and all of them sound
has() {
  local other
  blobring fsck -q "$1"
  for other in "${@:2}"; do
    [ -z "$(comm -13 <(names "$1") <(names "$other"))" ] || fail "$1 lacks blobs of $other"
  done
}

# Pulled into an empty store, the remote $1 gives all of the store $2, the snapshot $3 if named.
gives() {
  rm -rf back
  blobring init -q back
  blobring pull -q back "$1" ${3:+--snapshot "$3"}
  has back "$2"
}

field() { python3 -c 'import json, sys; print(json.load(sys.stdin)[sys.argv[1]])' "$1"; }
