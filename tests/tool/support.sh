# Shared by the scenarios. Source it with the tool's path as $1; leaves the
# caller in an empty directory that goes away at the end.
set -eEuo pipefail
export LC_ALL=C

tool=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'echo "FAILED, $0 line $LINENO: $BASH_COMMAND" >&2' ERR
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

# flip_byte FILE OFFSET
flip_byte() {
  local byte
  byte=$(od -An -tu1 -j "$2" -N 1 "$1")
  printf '%b' "\\x$(printf %02x $((byte ^ 255)))" | dd of="$1" bs=1 seek="$2" conv=notrunc status=none
}

word() { # FILE OFFSET VALUE: a little-endian word of 32 bits
  printf '%08x' "$3" | sed -E 's/(..)(..)(..)(..)/\\x\4\\x\3\\x\2\\x\1/' | xargs -0 printf '%b' |
    dd of="$1" bs=1 seek="$2" conv=notrunc status=none
}
