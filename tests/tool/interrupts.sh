# Ctrl-C in the middle of each command that takes long, at one system call after the other: the
# store is sound, what the message claims is there, no temporary file stays, and a second run gets
# where an uninterrupted one does.
# interrupts.sh TOOL FAILING_READS INTERRUPTING
. "$(dirname "$0")/support.sh" "$@"
interrupting=$3

mkdir tree
seq -f %04000.0f 1100 | split -l 1 -a 3 - tree/
blobring init full
blobring import full tree -m m
blobring init empty
sed 1,400d m >keep

# row MESSAGE CLAIM END COMMAND...: on copies s of `full` and t of `empty`. CLAIM holds after each
# interrupt, END after the command that follows it.
row() {
  local message=$1 claim=$2 end=$3 at status=130 count=0 told=0 claimed
  shift 3
  for ((at = 1; status == 130; at = at * 3 + 1)); do
    rm -rf s t out new m2
    cp -r full s
    cp -r empty t
    status=0
    INTERRUPT_AT=$at LD_PRELOAD=$interrupting "$tool" "$@" >printed 2>said || status=$?
    if [ "$status" -eq 130 ]; then
      count=$((count + 1))
      tail -1 said | grep -qE "^blobring: interrupted($message)?\$" || fail "$*: $(cat said)"
      tail -1 said | grep -qE "$message\$" && told=1
      same "$(find . -name '.blobring-*')" ""
      blobring check -q s && blobring check -q t
      claimed=$(grep -oE '[0-9]+ (new blob|of)' said | cut -d' ' -f1 || true)
      eval "$claim" || fail "$*, interrupted at $at: $(cat said)"
      rm -rf new
      "$tool" "$@" >printed2 2>&1 || [ "$1" = export ] # which keeps what is there
    fi
    eval "$end" || fail "$*, after an interrupt at $at"
  done
  [ "$status" -eq 0 ] || fail "$*: status $status: $(cat said)"
  [ "$count" -ge 3 ] && [ $told -eq 1 ] || fail "$*: $count interrupts, message: $told"
}
count() { blobring ls "$1" | wc -l; }
resume=": [0-9]+ new blobs? committed, .*; run it again to go on"
row "$resume" 'same "$(count t)" "${claimed:-0}"; [ ! -e m2 ]' 'cmp m m2' import t tree -m m2
row "$resume" 'same "$(count t)" "${claimed:-0}"' 'blobring diff -q m t' sync s t
row ": what was printed is committed" 'same "$(blobring ls t)" "$(sort printed)"' 'blobring diff -q m t' put t tree/*
row ": [0-9]+ of 1100 files restored" 'same "$(find out -type f 2>&- | wc -l)" "${claimed:-0}"' 'diff -r tree out' export s m out
row ": the store is as it was" 'blobring diff -q m s' 'blobring diff -q m s' repack s
row ": nothing was deleted" 'blobring diff -q m s' 'blobring diff -q keep s' rm s --not-in keep
row "; new holds what was committed until then, .*" true 'blobring diff -q m new' salvage s new
