# Files damaged in every way that a disk knows: each blob whose bytes are still
# there comes back, the rest is named, and the originals stay as they are.
# salvage.sh TOOL FAILING_READS
. "$(dirname "$0")/support.sh" "$@"
failing_reads=$2

fill() { head -c "$4" "$1" | dd of="$2" bs=1 seek="$3" conv=notrunc status=none; } # SOURCE FILE OFFSET SIZE
place() { LC_ALL=C grep -obaF -m1 "blob $2 " "$1" | head -1 | cut -d: -f1; }      # FILE BLOB: where its data begins

# Blobs 00-09 in the pack, 00 deleted since, 10-19 in the journal by two commits. They
# begin with their names; one holds zeros enough to hide records in, one is a journal.
mkdir blobs
for i in {00..19}; do
  { echo "blob $i is this"; head -c $((10#$i * 1000)) /dev/urandom | base64 -w 76; } >blobs/$i
done
head -c 30000 /dev/zero >>blobs/07
blobring init inner
printf abc | blobring put inner >/dev/null
cat inner/0.jrn >>blobs/15
blobring init good
blobring put good blobs/0? >hashes
blobring repack good
blobring put good blobs/1[0-4] >>hashes
blobring put good blobs/1[5-9] >>hashes
blobring rm good "$(head -1 hashes)"

# row LOST PATTERN COMMAND [OPTION...]: of the store after COMMAND all blobs but LOST are
# recovered, the report matches PATTERN, and only a sound store gives status 0.
row() {
  local lost=" $1 " pattern=$2 command=$3 status=0 i
  shift 3
  rm -rf damaged out
  cp -r good damaged
  (cd damaged && eval "$command")
  find damaged -type f -exec md5sum {} + >before
  "$tool" salvage damaged out "$@" >report 2>error || status=$?
  md5sum --quiet -c before || fail "$command: a file was changed"
  for i in {0..19}; do [[ $lost == *" $i "* ]] || sed -n $((i + 1))p hashes; done | sort >wanted
  blobring ls out | diff wanted - || fail "$command: $(cat report error)"
  grep -q "every blob is sound" error
  grep -qE -e "$pattern" report || fail "$command: wanted \"$pattern\": $(cat report)"
  grep -qE "^no damage" report || same $status 1
  grep -qE "^damage" report || same $status 0
}
row "" "; 19 live, 1 not live" true
row 0 "; 1 left behind" true --live-only
# A sequence that was damaged makes no generation the newest.
row "" "cannot tell which blobs are live; all" "word 0.pak 12 4" --live-only
rm good/0.pak good/0.jrn # which have the blobs of the pack once more

pak() { place ../good/1.pak $1; }
jrn() { place ../good/1.jrn $1; }
flip() { flip_byte $1 $(($2 + ${3:-0})); }
row "" "header: damaged" "fill /dev/urandom 1.pak 0 24; fill /dev/zero 1.jrn 0 24"
row "" "the header counts other records" "word 1.pak 4 0; word 1.pak 20 24; word 1.jrn 20 \$((\$(jrn 17) + 5))"
row "4 14" "$(printf '%#x' $(($(place good/1.pak 04) - 36))): blob $(sed -n 5p hashes), $(stat -c %s blobs/04) bytes, does not match" \
  'flip 1.pak $(pak 04) 100; flip 1.jrn $(jrn 14) 100'
row 4 "1 incomplete transaction" 'flip 1.pak $(pak 04) -20' # hash, size, size, op
row 4 "no record" 'flip 1.pak $(pak 04) -36'
row 7 "" 'word 1.pak $(($(pak 07) - 4)) $(($(stat -c %s ../blobs/07) - 1))' # leads to a false record beside the next
row "" "1 incomplete" 'flip 1.jrn 50'  # a digest
row "" "56 bytes, no record" 'flip 1.jrn $(jrn 15) -92' # the end record before
row 19 "$(sed -n 20p hashes), $(stat -c %s blobs/19) bytes, runs past the end" 'truncate -s $(($(jrn 19) + 50)) 1.jrn'
row "9 13 14" "0x[0-9a-f]+-0x[0-9a-f]+: [0-9]+ bytes, no record" \
  'fill /dev/zero 1.pak $(($(pak 09) + 512)) 512; fill /dev/zero 1.jrn $(($(jrn 14) - 100)) 512'
row 5 "" 'at=$(($(pak 05) + 300)); { head -c $at ../good/1.pak; tail -c +$((at + 78)) ../good/1.pak; } >1.pak'
row "0 1 2 3 4 5 6 7 8 9" "1.pak: missing" "rm 1.pak"
row "" "^no damage" "rm blobring.conf; for f in *; do mv \$f \$f.kept-3; done"
row "" "live" "rm blobring.conf; mkdir ../packs; mv 1.pak ../packs" --pack-dir packs

# A disk that refuses to read one block: what does not lie in it comes back, and the
# block is named. Eight blobs of 13000 bytes, the k-th record at 64 + (k - 1) * 13036.
for i in {1..8}; do head -c 13000 /dev/urandom >blob$i; done
blobring init failing
blobring put failing blob[1-8] | sort >hashes
blobring repack failing
rm failing/0.*
while read -r block range lost; do # with that block unreadable, all but the blobs LOST are recovered
  rm -rf out
  FAIL_FILE=failing/1.pak FAIL_AT=$((block * 4096)) LD_PRELOAD=$failing_reads "$tool" salvage failing out >report && fail "$block"
  grep -q "^  $range bytes, cannot be read from the disk" report || fail "block $block: $(cat report)"
  sed "$lost" hashes | diff - <(blobring ls out) || fail "block $block: $(cat report)"
done <<ROWS
0 0x0-0x1000:.4096 1d
3 0x3000-0x4000:.4096 1,2d
ROWS

# Contents that look like records everywhere: a store of 2 MiB at every 36th byte, with a
# hash that no data has, 137 GB to digest if every place was tried.
mkdir hostile
{ head -c 24 good/1.jrn; echo gap; printf '\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0abcdefghijklmnop\0\0\x20\0%.0s' {1..65536}; head -c 3000000 /dev/zero; } >hostile/0.jrn
timeout 100 "$tool" salvage hostile hostile.out >report 2>&1 || same $? 1
grep -q "some places were not tried" report || fail "$(cat report)"

# Without room for the new store or the report: said, and what was committed is there.
(trap '' XFSZ; ulimit -f 100; blobring salvage good small >report 2>error) && fail "there was room"
grep -q "salvage stopped early: .* small" error || fail "$(cat error)"
expect 0 "every blob is sound" fsck small
blobring salvage good nowhere >/dev/full 2>error && fail "a report that could not be written went unseen"
[ ! -e nowhere ] || fail "a store was made without a report"
expect 2 "not an empty directory" salvage good small
expect 2 "must not contain" salvage good good/out
