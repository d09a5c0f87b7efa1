# Files damaged in every way that a disk knows: each blob whose bytes are still
# there comes back, the rest is named, and the originals stay as they are.
. "$(dirname "$0")/support.sh" "$@"

# word FILE OFFSET VALUE: a little-endian word of 32 bits.
word() {
  printf '%b' "$(printf '\\x%02x\\x%02x\\x%02x\\x%02x' $(($3 & 255)) $(($3 >> 8 & 255)) $(($3 >> 16 & 255)) $(($3 >> 24 & 255)))" |
    dd of="$1" bs=1 seek="$2" conv=notrunc status=none
}
zero() { dd if=/dev/zero of="$1" bs=1 seek="$2" count="$3" conv=notrunc status=none; }

# place FILE BLOB: the offset of the first byte of the blob's data.
place() { LC_ALL=C grep -obaF -m1 -f <(head -c 24 "$2") "$1" | head -1 | cut -d: -f1; }

# The store: blobs 0-9 in the pack, 0 deleted since, 10-19 in the journal by two
# commits. Texts that grep can find, of 0 to 20 KB; one holds zeros enough to hide
# records in, one is a journal itself.
mkdir blobs
for ((i = 0; i < 20; ++i)); do
  { printf 'blob %02d ---------------------------\n' $i; head -c $((i * 1000)) /dev/urandom | base64 -w 76; } >blobs/$i
done
{ cat blobs/3; head -c 30000 /dev/zero; echo end; } >blobs/7.zeros && mv blobs/7.zeros blobs/7
sed -i '1s/.*/blob 07 ---------------------------/' blobs/7
blobring init inner 2>/dev/null
printf abc | blobring put inner >/dev/null
{ echo "blob 15 ---------------------------"; cat inner/0.jrn; } >blobs/15
blobring init good 2>/dev/null
for ((i = 0; i < 10; ++i)); do echo blobs/$i; done | xargs "$tool" put good >hashes
blobring repack good 2>/dev/null
for ((i = 10; i < 20; ++i)); do echo blobs/$i; done | xargs -n 5 "$tool" put good >>hashes
blobring rm good "$(head -1 hashes)" 2>/dev/null
same "$(figure good sequence) $(wc -l <hashes)" "1 20"

# salvage STATUS NAME [OPTION...]: from the store NAME to NAME.out, report in NAME.txt.
salvage() {
  local wanted=$1 name=$2 status=0
  shift 2
  find "$name" -type f -exec md5sum {} + | sort >before
  "$tool" salvage "$name" "$name.out" "$@" >"$name.txt" 2>"$name.err" || status=$?
  find "$name" -type f -exec md5sum {} + | sort | diff before - || fail "$name: a file was changed"
  [ "$status" -eq "$wanted" ] || fail "$name: status $status, wanted $wanted: $(cat "$name.txt" "$name.err")"
  expect 0 "every blob is sound" fsck "$name.out"
}

# lacks NAME [BLOB...]: all that the store ever held came back, except these.
lacks() {
  local name=$1 i
  shift
  for ((i = 0; i < 20; ++i)); do
    local hash
    hash=$(sed -n $((i + 1))p hashes)
    if [[ " $* " == *" $i "* ]]; then
      expect 1 "has no blob" get "$name.out" "$hash"
      grep -q "$hash.*\(does not match\|past the end\)" "$name.txt" || fail "$name: blob $i is not named: $(cat "$name.txt")"
    else
      blobring get "$name.out" "$hash" -o got || fail "$name: blob $i: $(cat "$name.txt")"
      cmp got blobs/$i
    fi
  done
}

# tells NAME PATTERN
tells() { grep -qE -e "$2" "$1.txt" || fail "$1: wanted \"$2\": $(cat "$1.txt")"; }

cp -r good sound
salvage 0 sound
lacks sound
tells sound "19 live, 1 only found"
tells sound "no damage was found"
cp -r good live
salvage 0 live --live-only
expect 1 "has no blob" get live.out "$(head -1 hashes)"
same "$(blobring ls live.out | wc -l)" 19

# What follows is cruel: slot 0, which has the blobs of the pack once more, goes.
rm good/0.pak good/0.jrn
pack=good/1.pak
journal=good/1.jrn

# A header of noise; of zeros; one that counts nothing; one that ends too early.
for kind in noise zeros empty early; do
  cp -r good "header-$kind"
  for file in 1.pak 1.jrn; do
    case $kind in
      noise) head -c 24 /dev/urandom | dd of="header-$kind/$file" conv=notrunc status=none ;;
      zeros) zero "header-$kind/$file" 0 24 ;;
      empty) word "header-$kind/$file" 4 0; word "header-$kind/$file" 20 24 ;;
      early) word "header-$kind/$file" 20 $(($(stat -c %s "$pack") / 2)) ;;
    esac
  done
  salvage 1 "header-$kind"
  lacks "header-$kind"
done
tells header-noise "header: damaged"

# One byte of a blob's data, of its hash, of a size, of an op, of a digest.
cp -r good data
flip_byte data/1.pak $(($(place $pack blobs/4) + 100))
flip_byte data/1.jrn $(($(place $journal blobs/14) + 100)) # the last before an end record
salvage 1 data
lacks data 4 14
grep "no record" data.txt && fail "what follows a damaged blob was not found"
tells data "$(printf '%#x' $(($(place $pack blobs/4) - 36))): blob $(sed -n 5p hashes), $(stat -c %s blobs/4) bytes, does not match"
tells data "1 transaction in use and not whole"
for at in -20 -4 -3 -36; do # hash, size, size, op
  cp -r good "head$at"
  flip_byte "head$at/1.pak" $(($(place $pack blobs/4) + at))
  "$tool" salvage "head$at" "head$at.out" >"head$at.txt" 2>/dev/null && fail "$at: no damage was seen"
  for ((i = 0; i < 20; ++i)); do
    [ $i -eq 4 ] || blobring get "head$at.out" "$(sed -n $((i + 1))p hashes)" | cmp - blobs/$i
  done
done
cp -r good digest
flip_byte digest/1.jrn 50
salvage 1 digest
lacks digest

# The file ends in the middle of a blob. The last one is cut, or the one before as well.
cp -r good cut
last=$(sed -n 20p hashes)
truncate -s $(($(place $journal blobs/19) + 50)) cut/1.jrn
salvage 1 cut
lacks cut 19
tells cut "$last, $(stat -c %s blobs/19) bytes, runs past the end"

# A sector of zeros, over two records and over a long one's inside.
cp -r good sector
zero sector/1.pak $(($(place $pack blobs/9) + 512)) 512
zero sector/1.jrn $(($(place $journal blobs/14) - 100)) 512 # the end of 13, the head of 14
salvage 1 sector
for i in 9 13; do grep -q "$(sed -n $((i + 1))p hashes).*does not match" sector.txt || fail "$i: $(cat sector.txt)"; done
for ((i = 0; i < 20; ++i)); do
  case $i in 9 | 13 | 14) ;; *) blobring get sector.out "$(sed -n $((i + 1))p hashes)" | cmp - blobs/$i ;; esac
done
tells sector "0x[0-9a-f]+-0x[0-9a-f]+: [0-9]+ bytes, no record"

# Bytes that went missing in the middle: nothing stands where its neighbours say.
cp -r good shifted
at=$(($(place $pack blobs/5) + 300))
{ head -c $at $pack; tail -c +$((at + 78)) $pack; } >shifted/1.pak
salvage 1 shifted
for ((i = 0; i < 20; ++i)); do
  [ $i -eq 5 ] || blobring get shifted.out "$(sed -n $((i + 1))p hashes)" | cmp - blobs/$i
done

# No pack at all: the journal's blobs. Files set aside are read as well.
cp -r good nopack
rm nopack/1.pak
salvage 1 nopack
tells nopack "1.pak: missing"
same "$(blobring ls nopack.out)" "$(sed -n 11,20p hashes | sort)"
mkdir kept
cp good/1.pak kept/1.pak.kept-3
tail -c +1 good/1.jrn >kept/1.jrn.kept-3
salvage 0 kept
lacks kept
mkdir -p far/packs far/journals
cp good/1.pak far/packs
cp good/1.jrn far/journals
expect 0 "20 blobs" salvage far/journals far.out --pack-dir far/packs

# Contents made to look like records everywhere cost no more than their size allows.
mkdir hostile
head -c 24 $journal >hostile/0.jrn
# A store record of 2 MiB at every 36th byte: a hash that no data has, and a size that fits.
printf '\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0abcdefghijklmnop\0\0\x20\0' >record
cp record block
for i in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16; do cat block block >twice; mv twice block; done
cat block block block >>hostile/0.jrn # 400 GB to digest, if every place were tried
head -c 3000000 /dev/zero >>hostile/0.jrn
status=0
timeout 100 "$tool" salvage hostile hostile.out >report 2>&1 || status=$?
same "$status" 1
grep -q "not every place was tried" report || fail "$(cat report)"

# No room for the new store: said, nothing of the old one is touched, and what
# was committed is in the new one. With room it is all there.
find good -type f -exec md5sum {} + | sort >before
status=0
(trap '' XFSZ; ulimit -f 100; blobring salvage good small.out >report 2>error) || status=$?
same "$status" 1
grep -q "cannot .* may not grow further" error || fail "$(cat error)"
grep -q "salvage did not come to its end: .* small.out" error || fail "$(cat error)"
find good -type f -exec md5sum {} + | sort | cmp - before
expect 0 "every blob is sound" fsck small.out
[ "$(blobring ls small.out | wc -l)" -lt 20 ] || fail "there was room for everything"
blobring salvage good small.out2 >/dev/full 2>error && fail "a report that could not be written went unseen"
grep -q "standard output: No space left" error || fail "$(cat error)"
[ ! -e small.out2 ] || fail "a store was made without a report"
cp -r good roomy
salvage 1 roomy
lacks roomy

# Refusals.
expect 2 "not an empty directory" salvage good sound.out
expect 1 "no pack and no journal" salvage blobs x
expect 1 "o such file" salvage nowhere x
[ ! -e x ] || fail "a store was made for nothing"
