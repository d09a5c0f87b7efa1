# A disk that refuses to read a block: what does not lie in it comes back, and
# the block is named.
# salvage_failing_disk.sh TOOL FAILING_READS
. "$(dirname "$0")/support.sh" "$@"
failing_reads=$2

# A pack of eight blobs, each longer than three blocks.
for i in 1 2 3 4 5 6 7 8; do head -c 13000 /dev/urandom >blob$i; done
blobring init s 2>/dev/null
blobring put s blob? >hashes
blobring repack s 2>/dev/null
rm s/0.pak s/0.jrn
cp s/1.pak before.pak

# fails BLOCK LOST...: with that block of the pack unreadable, all but the blobs
# LOST are recovered, bytes compared.
fails() {
  local at=$(($1 * 4096)) end=$(($1 * 4096 + 4096)) size i status=0
  shift
  size=$(stat -c %s s/1.pak)
  [ $end -le "$size" ] || end=$size
  rm -rf out
  FAIL_FILE=s/1.pak FAIL_AT=$at LD_PRELOAD=$failing_reads "$tool" salvage s out >report 2>error || status=$?
  same "$status" 1
  grep -q "^  $(printf '0x%x-0x%x: %d' $at "$end" $((end - at))) bytes, cannot be read from the disk" report ||
    fail "$(cat report error)"
  for i in 1 2 3 4 5 6 7 8; do
    if [[ " $* " == *" $(grep -nx "$(md5sum <blob$i | cut -c-32)" inpack | cut -d: -f1) "* ]]; then
      expect 1 "has no blob" get out "$(md5sum <blob$i | cut -c-32)"
    else
      blobring get out "$(md5sum <blob$i | cut -c-32)" | cmp - blob$i || fail "block $at: blob$i: $(cat report)"
    fi
  done
  expect 0 "every blob is sound" fsck out
  cmp s/1.pak before.pak
}

# Blobs of one transaction lie in the pack in the order of their hashes, the k-th
# at 24 + 40 + (k - 1) * 13036, head included.
sort hashes >inpack
fails 1 1
fails 3 1 2 # from 12288: the end of the first, and at 13100 the head of the second
fails 25 8  # where the file ends
fails 0 1   # with the header: what lies behind it is found by its hash
