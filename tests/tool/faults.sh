# Damage, files that cannot grow, other hosts' stores: what was committed stays,
# commands that look change nothing, and the user is told.
. "$(dirname "$0")/support.sh" "$@"

for i in 1 2 3; do head -c 100000 /dev/urandom >"part$i"; done
hash() { md5sum "$@" | cut -c-32; }

# unchanged STORE STATUS PATTERN: every command that looks says so, the second time as the first.
unchanged() {
  find "$1" -type f -exec md5sum {} + -exec stat -c '%n %Y %Z' {} + | sort >before
  for command in ls ls fsck stat; do expect "$2" "$3" $command "$1"; done
  find "$1" -type f -exec md5sum {} + -exec stat -c '%n %Y %Z' {} + | sort | cmp - before
}

# A file that cannot grow: no hash is printed that is not safe, what was committed stays.
blobring init full 2>/dev/null
blobring put full part1 >printed
status=0
(ulimit -f 250; blobring put full part2 part3 >printed2 2>error) || status=$?
same "$status $(wc -l <printed2)" "1 0"
grep -q "commit: .*may not grow further" error || fail "$(cat error)"
expect 0 "every blob is sound" fsck full
same "$(blobring ls full)" "$(cat printed)"
same "$(blobring put full part2 part3)" "$(hash part2 part3)"
status=0
(ulimit -f 250; blobring repack full 2>error) || status=$?
same "$status" 1
grep -q "may not grow further" error || fail "$(cat error)"
! grep -qi corrupt error || fail "$(cat error)"
expect 0 "every blob is sound" fsck full
same "$(blobring ls full | wc -l)" 3
for output in "get full $(hash part1)" "ls full"; do
  "$tool" $output >/dev/full 2>error && fail "a full disk went unseen"
  grep -q "standard output: No space left" error || fail "$(cat error)"
done
status=0
(ulimit -f 50; blobring get full "$(hash part1)" -o out 2>error) || status=$?
same "$status $(cat error) $(find . -name 'out' -o -name '.blob*')" "1 blobring: cannot write out: File too large "

# A file that is missing is created by no command.
blobring init gone 2>/dev/null
abc=$(printf abc | blobring put gone)
blobring repack gone 2>/dev/null
for file in 1.pak 0.jrn; do
  mv gone/$file aside
  for command in ls "put --on-damage erase"; do expect 1 "gone/$file is missing" $command gone; done
  [ ! -e gone/$file ] || fail "gone/$file was created"
  mv aside gone/$file
done

# A store without a layout file, on a file system that is read-only.
cp -r gone device
rm device/blobring.conf
mkdir packs
cp -r device split && mv split/*.pak packs
if unshare -rm true 2>/dev/null; then
  readonly_run() { unshare -rm sh -c 'mount --bind device device && mount -o remount,bind,ro device && exec "$@"' - "$@"; }
else
  readonly_run() { "$@"; }
fi
same "$(readonly_run "$tool" get device "$abc")" abc
unchanged device 0 "."
for options in "device --slots 2" "split --slots 2 --pack-dir packs" "split --pack-dir packs"; do
  expect 0 "^$abc" ls $options
done
expect 1 "0.pak" ls split
expect 1 "blobring init" rm device "$abc"

# The newest pack is damaged: the older generation can be read, and nothing is
# written that could cover what is left of the newer one.
cp -r gone headless
flip_byte gone/1.pak 100
cp -r gone erasing
cp gone/1.pak before.pak
unchanged gone 1 "invalid Pack file|damaged"
for change in "put gone part1" "rm gone $abc" "repack gone"; do
  expect 1 "takes no changes.*blobring salvage gone NEW" $change
done
cmp gone/1.pak before.pak
expect 0 "slot 1 is current .sequence 1." repack --force gone
expect 0 "every blob is sound" fsck gone
same "$(blobring get gone "$abc")" abc
expect 0 "$(hash part1)" put --on-damage erase erasing part1
expect 1 "." get erasing "$(md5sum <part1 | cut -c-32)" -o got
cmp got part1

# The newest pack has lost its header, and does not say any more that it is the newest.
xyz=$(printf xyz | blobring put headless)
blobring repack headless 2>/dev/null
printf abcd | blobring put headless >/dev/null
dd if=/dev/zero of=headless/0.pak bs=24 count=1 conv=notrunc status=none
cp headless/0.pak before.pak
expect 1 "headless/0" ls headless
expect 1 "headless" put headless part1
cmp headless/0.pak before.pak
expect 1 "recovered: 3 blobs" salvage headless rescued
same "$(blobring get rescued "$xyz")" xyz

# No pack can be loaded, which its header tells or only its contents do.
for kind in header contents; do
  blobring init $kind --slots 1 2>/dev/null
  blobring put $kind part1 part2 >two
  blobring repack $kind 2>/dev/null
done
head -c 24 /dev/zero | tr '\0' '\377' | dd of=header/0.pak conv=notrunc status=none
flip_byte contents/0.pak 50 # of the digest
for kind in header contents; do
  cp -r $kind $kind.erased
  unchanged $kind 1 "."
  expect 1 "." put $kind part1
  expect 1 "recovered: 2 blobs" salvage $kind $kind.both
  same "$(blobring ls $kind.both)" "$(sort two)"
  expect 0 "$(hash part1)" put --on-damage erase $kind.erased part1
  same "$(blobring ls $kind.erased)" "$(hash part1)"
done

# The last transaction of a journal is torn: said once, set aside, the rest goes on.
blobring init tail 2>/dev/null
blobring put tail part1 >/dev/null
blobring put tail part2 >/dev/null
flip_byte tail/0.jrn 100145 # of the digest
unchanged tail 0 "."
expect 0 "set aside|kept" put tail part3
same "$(blobring ls tail)" "$(hash part1 part3 | sort)"
expect 0 "every blob is sound" fsck tail
expect 1 "recovered: 3 blobs" salvage tail all
