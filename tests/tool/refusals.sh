# What is refused, with which status, and what the message says to do; and where
# results may go. Nothing else changes.
. "$(dirname "$0")/support.sh" "$@"

blobring init s
abc=$(printf abc | blobring put s)
mkdir plain used
echo mine >used/f
mkfifo pipe
echo "$abc  f" >good
echo "$abc f" >one-space
printf '\\%s  a\\q\n' "$abc" >bad-escape
ln -s used/f link
expect 0 "packs in .*/p" init far --pack-dir p
cp -r s before

while read -r status pattern arguments; do eval "expect $status ${pattern@Q} $arguments"; done <<'ROWS'
2 ^blobring:.there.is.no.command."frob" frob s
2 ^blobring:.*STORE put
2 s.has.2.slots ls s --slots 3
2 already.*cannot.be.changed init s --pack-dir used
2 p/0.pak.is.not.a.pack.of.x init x --pack-dir p
0 already;.nothing.was.changed init s
1 blobring.init ls plain
4 has.no.blob get s ${abc//[a-f]/0} -o x
1 directory.*import put s used
2 good.exists;.--force import s used -m good
2 link.is.a.symbolic.link get s $abc -o link
2 line.1:.wanted.a.hash export s one-space x
2 line.1 export s bad-escape x
1 exists.and.was.kept export s good used
0 import.*store.every --help
ROWS
for name in /tmp/x ../x a/../../x a/; do
  printf '%s  ok\n%s  %s\n' "$abc" "$abc" "$name" >unsafe
  expect 2 "nothing was written" export s unsafe x
done
[ ! -e x ] || fail "something was written for a request that was refused"
same "$(cat used/f)" mine
diff -r s before

# No link leads out of the directory, neither as a directory nor as the file itself.
mkdir out in
echo untouched >out/f
ln -s ../out in/link
ln -s ../out/f in/f
echo "$abc  link/f" >through
expect 1 "link is there and is no directory" export --force s through in
expect 0 "restored 1 file" export --force s good in
same "$(cat out/f) $(cat in/f)" "untouched abc"

# A file is replaced with its mode, a pipe or device is written.
chmod 640 used/f
blobring get s "${abc^^}" -o used/f
same "$(cat used/f) $(stat -c %a used/f)" "abc 640"
cat pipe >read &
blobring get s "$abc" -o pipe
wait
same "$(cat read)" abc

# Hashes from standard input; each counts once.
printf 1 >one && printf 2 >two
blobring put s one two <&- | cat >hashes
same "$(blobring get s - <hashes)" 12
same "$(blobring ls -l s | awk '{ print $1, $2 }')" "$({ echo "$abc 3"; sed 's/$/ 1/' hashes; } | sort)"
expect 4 "1 blob deleted" rm s $(head -1 hashes) $(head -1 hashes) "${abc//[a-f]/0}"

# A good file beside bad ones is stored. No message may get into the manifest.
mkdir tree
truncate -s 2147483532 tree/big
printf good >tree/good
expect 1 "tree/big: it is too large, a blob has at most 2147483531 bytes" import s tree -m m
status=0
blobring import s tree --force -m m >&- 2>&- || status=$?
same "$status $(cut -c35- m)" "1 ./good"

# One process at a time, but not while one waits for its input.
flock s/0.pak "$tool" put s good 2>said && fail "two processes had the store"
grep -q "another process has the store open; wait" said
blobring put s two pipe >held &
exec 3>pipe
expect 0 "[0-9a-f]{32}" ls s
printf xyz >&3
exec 3>&-
wait
same "$(cat held)" "$(hash two)"$'\n'"$(printf xyz | hash)"

# A store without its conf: taken over with the same slots, never with others.
rm s/blobring.conf
expect 1 "blobring init s" put s good
expect 2 "repeat init with --slots 2" init s --slots 3
expect 0 "store with 2 slots" init s
same "$(blobring get s "$(tail -1 held)")" xyz
echo 'blobring 2' >s/blobring.conf
expect 1 "s/blobring.conf line 1" ls s
