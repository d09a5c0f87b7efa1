# Blobs and a tree through every command, across a repack and many openings.
. "$(dirname "$0")/support.sh" "$@"

abc=900150983cd24fb0d6963f7d28e17f72 # RFC 1321
empty=d41d8cd98f00b204e9800998ecf8427e

expect 0 "store with 2 slots" init s
expect 0 "already; nothing was changed" init s

# Single blobs: from standard input, from files, from a pipe; each hash on its line.
same "$(printf abc | blobring put s)" "$abc"
printf abc >abc.txt
: >nothing
same "$(blobring put s abc.txt nothing <(printf abc) | tr '\n' ' ')" "$abc $empty $abc "
same "$(blobring ls s | tr '\n' ' ')" "$abc $empty "
same "$(blobring ls -l s | tr '\n' ' ')" "$abc 3 $empty 0 "
same "$(blobring get s "${abc^^}")" abc
blobring get s "$empty" -o out
same "$(wc -c <out)" 0
echo before >out
blobring get s "$abc" -o out
same "$(cat out)" abc

# A journal of one blob takes 119 bytes: header 24, start 40, record 36 + 3, end 16.
blobring init one 2>/dev/null
printf abc | blobring put one >/dev/null
same "$(figure one live) $(figure one dead)" "3 0"
grep -qE ' 119 +119 +0 +sound +one/0.jrn' <(blobring stat one) || fail "$(blobring stat one)"

# A second blob, 40 + 39 + 16, and its deletion, 40 + 32 + 16, are dead until a repack.
xyz=$(printf xyz | blobring put one)
expect 0 "1 blob deleted" rm one "$xyz"
same "$(figure one dead)" 183
expect 1 "has no blob $xyz" get one "$xyz"
expect 1 "has no blob $xyz" rm one "$xyz"
expect 0 "slot 1 is current .sequence 1." repack one
same "$(figure one blobs) $(figure one live) $(figure one dead) $(figure one sequence)" "1 3 0 1"
expect 0 "every blob is sound" fsck one
expect 0 "slot 0 is current .sequence 2." repack one
same "$(blobring get one "$abc")" abc

# A tree: more files than one transaction takes, a third of them with contents seen before.
mkdir -p tree/a/b/c tree/empty
for ((i = 0; i < 1500; ++i)); do
  echo "contents $((i % 1000))" >"tree/a/$((i % 7))-$i"
done
head -c 3000000 /dev/urandom >tree/a/b/c/large
ln -s a tree/link
mkfifo tree/pipe
blobring init t 2>/dev/null
expect 0 "1001 new blobs stored.*500 files had contents" import t tree -m manifest
grep -q "left out: 1 symbolic link, 1 special file" expect.out || fail "$(cat expect.out)"
(cd tree && md5sum --quiet -c ../manifest) || fail "md5sum does not agree with the manifest"
same "$(sort manifest | md5sum)" "$(cd tree && find . -type f -exec md5sum {} + | sort | md5sum)"
expect 0 "0 new blobs stored.*1501 files had contents" import t tree -m manifest.again
cmp manifest manifest.again
cmp manifest <(blobring import t tree 2>/dev/null)

# Delete every tenth blob, repack, restore the rest.
awk '!seen[$1]++ && NR % 10 == 0 { print $1 }' manifest >gone
xargs "$tool" rm t <gone 2>/dev/null
blobring repack t 2>/dev/null
same "$(figure t blobs)" $((1001 - $(wc -l <gone)))
grep -vFf gone manifest >kept
expect 0 "restored $(wc -l <kept) files" export t kept restored
(cd restored && md5sum --quiet -c ../kept) || fail "the restored tree is not the one that was stored"
same "$(find restored -type f | wc -l)" "$(wc -l <kept)"
blobring export t - restored1 <kept 2>/dev/null
diff -r restored restored1
expect 1 "has no blob" export t manifest restored2
same "$(find restored2 -type f | wc -l)" "$(wc -l <kept)"

# Packs elsewhere; found again without being named again.
expect 0 "3 slots, packs in .*/p0 and .*/p1" init elsewhere --slots 3 --pack-dir p0 --pack-dir p1
printf abc | blobring put elsewhere >/dev/null
blobring repack elsewhere 2>/dev/null
ls p0/0.pak p1/1.pak p0/2.pak elsewhere/0.jrn elsewhere/1.jrn elsewhere/2.jrn >/dev/null
same "$(cd / && blobring get "$work/elsewhere" "$abc")" abc
