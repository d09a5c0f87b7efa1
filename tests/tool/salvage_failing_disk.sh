# A disk that refuses to read one block: what does not lie in it comes back, and the
# block is named. salvage_failing_disk.sh TOOL FAILING_READS
. "$(dirname "$0")/support.sh" "$@"
failing_reads=$2

# A pack of eight blobs of 13000 bytes in the order of their hashes, the k-th record at
# 64 + (k - 1) * 13036.
for i in {1..8}; do head -c 13000 /dev/urandom >blob$i; done
blobring init s 2>/dev/null
blobring put s blob? | sort >hashes
blobring repack s 2>/dev/null
rm s/0.pak s/0.jrn

while read -r block end lost; do # with that block unreadable, all but the blobs LOST are recovered
  rm -rf out
  FAIL_FILE=s/1.pak FAIL_AT=$((block * 4096)) LD_PRELOAD=$failing_reads "$tool" salvage s out >report 2>error && fail "$block"
  range=$(printf '^  %#x-%#x: %d' $((block * 4096)) $end $((end - block * 4096)))
  grep -q "${range/^  0-/^  0x0-} bytes, cannot be read from the disk" report || fail "block $block: $(cat report error)"
  sed "$lost" hashes | diff - <(blobring ls out) || fail "block $block: $(cat report)"
  expect 0 "every blob is sound" fsck out
done <<ROWS
0 4096 1d
3 16384 1,2d
25 $(stat -c %s s/1.pak) 8d
ROWS
