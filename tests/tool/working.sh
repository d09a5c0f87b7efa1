# What commands that copy, remove, compare and clean take and leave, and that a dry run prints what
# the command then does.
. "$(dirname "$0")/support.sh" "$@"

# Patterns take the same names of a tree and of its manifest.
mkdir -p tree/a/b tree/tmp
for name in a/x.jpg a/b/y.jpg a/b/z.tmp tmp/x.jpg top.jpg; do echo $name >tree/$name; done
x=$(hash tree/a/x.jpg)
blobring init s
blobring import s tree -m all
while IFS='|' read -r options names; do
  set -f
  blobring import s tree -m m --force $options
  rm -rf out
  blobring export s all out $options
  set +f
  same "$(cut -c37- m | sort | paste -sd ' ')" "$names"
  same "$(cd out && find . -type f | cut -c3- | sort | paste -sd ' ')" "$names"
done <<'ROWS'
--include *.jpg|a/b/y.jpg a/x.jpg tmp/x.jpg top.jpg
--include *.jpg --include *.tmp --exclude tmp|a/b/y.jpg a/b/z.tmp a/x.jpg top.jpg
--exclude b/ --exclude top.*|a/x.jpg tmp/x.jpg
--exclude a/b --exclude /x.jpg|a/x.jpg tmp/x.jpg top.jpg
--include a/*.jpg|a/x.jpg
--include /*.jpg|top.jpg
ROWS

# announces WHAT COMMAND...: a dry run changes nothing and prints what the command then does, which
# WHAT shows.
announces() {
  local what=$1
  shift
  rm -rf s.before t.before
  cp -r s s.before && cp -r t t.before
  blobring "$@" --dry-run >printed
  diff -r s s.before && diff -r t t.before
  blobring "$@" >said
  [ -s printed ] || fail "$*: nothing was announced"
  same "$(sort printed)" "$(eval "$what" | sort)"
}
gone() { comm -23 <(blobring ls s.before) <(blobring ls s); }
come() { comm -13 <(blobring ls t.before) <(blobring ls t); }
blobring init t
blobring put t tree/top.jpg
rm -r out
head -2 all >two
announces come copy s t "${x:0:8}" "$x" "$(hash tree/top.jpg)"
same "$(cat printed)" "$x"
announces 'grep -f <(come) said' import t tree --exclude tmp
announces come sync s t
same "$(blobring ls s)" "$(blobring ls t)"
announces 'find out -type f' export s two out
echo new | blobring put s
announces gone rm s --not-in two all
announces gone rm s "${x:0:8}"
expect 2 "has nothing of what is listed" rm s --not-in <(echo "$x  x")
expect 4 "is dead, less than 90.0 %" repack s --if-dead 90%
cp -r s s.before2
expect 0 "would leave [0-9]+ bytes" repack s --dry-run --if-dead 10%
diff -r s s.before2
expect 0 "^blobring: repacked 4 blobs" repack s --if-dead 10%

# Checksums in every form.
raw() { printf "$(sed 's/../\\x&/g' <<<"$1")"; }
printf nl >tree/$'new\nline'
blobring put t tree/$'new\nline'
(cd tree && md5sum --tag a/x.jpg $'new\nline') >tagged
expect 0 "verified 7 files: 7 ok" verify t all tagged --write sum.chk
same "$(head -c 16 sum.chk | od -An -tx1 | tr -d ' \n')" "$(tail -c +17 sum.chk | hash)"
expect 0 "restored 7 files" export t sum.chk summed --force
cmp tree/$'new\nline' summed/$'new\nline'
flip_byte sum.chk 20
expect 1 "sum.chk is neither a list" verify t sum.chk
{ raw "$x" && cat tree/a/x.jpg; } >one.chk
expect 0 "1 ok, 0 missing, 0 damaged" verify t one.chk
expect 4 "^one.chk: missing, $x" verify s one.chk two --write 2.chk
[ ! -e 2.chk ]

# What the store lacks is not removed with the rest, nor what is in use.
blobring init c --slots 1
blobring put c tree/a/x.jpg tree/top.jpg
cp c/0.jrn c/0.jrn.kept-1
blobring rm c "$x"
touch c/0.pak.new c/0.pak.kept-x c/.blobring-{1,2}-0.tmp
exec 3<c/.blobring-2-0.tmp
flock 3
expect 1 "c/0.jrn.kept-1 .*, 1 blob that the store does not have" clean c --delete
same "$(cd c && echo *.* .blob*)" "0.jrn 0.jrn.kept-1 0.pak 0.pak.kept-x blobring.conf .blobring-2-0.tmp"
expect 0 "1 removed" clean c --delete --force

# A damaged store is not cleaned, nor moved aside by the attempt.
blobring repack c
flip_byte c/0.pak 100
touch c/.blobring-1-0.tmp
cp -r c c.before
expect 1 "is damaged.*nothing was removed" clean c --delete --force
diff -r c c.before
