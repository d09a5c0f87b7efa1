# Damage, files that cannot grow, other hosts' stores: what was committed stays,
# commands that look change nothing, and the user is told.
. "$(dirname "$0")/support.sh" "$@"

for i in 1 2 3; do head -c 100000 /dev/urandom >"part$i"; done

# unchanged STORE STATUS PATTERN: every command that looks says so, the second time as the first.
unchanged() {
  find "$1" -type f -exec md5sum {} + -exec stat -c '%n %Y %Z' {} + | sort >before
  for command in ls ls fsck stat; do expect "$2" "$3" $command "$1"; done
  find "$1" -type f -exec md5sum {} + -exec stat -c '%n %Y %Z' {} + | sort | cmp - before
}

# A file that cannot grow: no hash is printed that is not safe, what was committed stays.
blobring init full
blobring put full part1
(ulimit -f 250; blobring put full part2 part3 >printed 2>error) && fail "there was room"
[ ! -s printed ] || fail "a hash was printed that is not safe"
grep -q "commit: .*may not grow further" error
same "$(blobring ls full)" "$(hash part1)"
same "$(blobring put full part2 part3)" "$(hash part2 part3)"
expect 0 "checked 3 blobs.*every blob is sound" fsck full
blobring get full "$(hash part1)" >/dev/full 2>error && fail "a full disk went unseen"
grep -q "standard output: No space left" error
(ulimit -f 50; blobring get full "$(hash part1)" -o out 2>error) && fail "there was room"
same "$(cat error) $(find . -name 'out' -o -name '.blob*')" "blobring: cannot write out: File too large "

# A file that is missing is created by no command.
blobring init gone
abc=$(printf abc | blobring put gone)
blobring repack gone
for file in 1.pak 0.jrn; do
  mv gone/$file aside
  expect 1 "gone/$file is missing" put --on-damage erase gone part1
  mv -n aside gone/$file && [ ! -e aside ] || fail "gone/$file was created"
done

# A store without a layout file.
cp -r gone device
rm device/blobring.conf
mkdir packs
cp -r device split && mv split/*.pak packs
unchanged device 0 "."
expect 0 "^$abc" ls split --pack-dir packs
expect 1 "blobring init" rm device "$abc"

# The newest pack is damaged: the older generation can be read, and nothing is
# written that could cover what is left of the newer one.
cp -r gone headless
flip_byte gone/1.pak 100
unchanged gone 1 "invalid Pack file|damaged"
for change in "put gone part1" "rm gone $abc" "repack gone"; do
  expect 1 "takes no changes.*blobring salvage gone NEW" $change
done
expect 0 "slot 1 is current .sequence 1." repack --force gone
same "$(blobring get gone "$abc")" abc

# The newest pack has lost its header, and does not say any more that it is the newest.
xyz=$(printf xyz | blobring put headless)
blobring repack headless
printf abcd | blobring put headless
dd if=/dev/zero of=headless/0.pak bs=24 count=1 conv=notrunc status=none
cp -r headless before.store
expect 1 "headless" put headless part1
diff -r headless before.store

# No pack can be loaded.
blobring init erased --slots 1
blobring put erased part1
blobring repack erased
head -c 24 /dev/zero | tr '\0' '\377' | dd of=erased/0.pak conv=notrunc status=none
unchanged erased 1 "."
expect 1 "no pack can be loaded.*nothing was changed" put erased part1
expect 1 "recovered: 1 blob" salvage erased both
expect 0 "$(hash part2)" put --on-damage erase erased part2
same "$(blobring ls erased)" "$(hash part2)"

# The last transaction of a journal is torn: said once, set aside, the rest goes on.
blobring init tail
blobring put tail part1
blobring put tail part2
flip_byte tail/0.jrn 100145 # of the digest
unchanged tail 0 "."
expect 0 "set aside|kept" put tail part3
same "$(blobring ls tail)" "$(hash part1 part3 | sort)"
