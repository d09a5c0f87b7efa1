# A tree with names that shells fear, through every command and a manifest, and back.
. "$(dirname "$0")/support.sh" "$@"

mkdir -p tree/$'dir\nwith newline' "tree/ " tree/empty
names=('-' '--help' ' leading' '*star' 'back\slash' $'new\nline' $'return\r' $'\\n' $'\xff\xfe not UTF-8' 'trailing '
  $'\x01\x1b[2J\xc2\x9b' "$(printf 'n%.0s' {1..255})" '#comment' $'dir\nwith newline/x' ' /y')
for name in "${names[@]}"; do printf '%s' "$name" >"tree/$name"; done
for ((i = 0; i < 1500; ++i)); do echo "contents $((i % 1000))" >"tree/$i"; done # more than one transaction takes
count=$((1500 + ${#names[@]}))

blobring init s 2>/dev/null
expect 0 "imported $count files" import s tree -m manifest
(cd tree && md5sum --quiet --strict -c ../manifest) || fail "md5sum does not agree with the manifest"
same "$(sort manifest)" "$(cd tree && find . -type f -exec md5sum {} + | sort)"
cmp manifest <(blobring import s tree 2>/dev/null)
expect 0 "0 new blobs stored.*$count files had contents" import s tree -m - # from what is there already

# Delete every tenth blob, repack, restore the rest.
awk '/^[^\\]/ && !seen[$1]++ && NR % 10 == 0 { print $1 }' manifest >gone
xargs "$tool" rm s <gone 2>/dev/null
blobring repack s 2>/dev/null
same "$(figure s blobs)" $((1000 + ${#names[@]} - $(wc -l <gone)))
same "$(figure s dead) $(figure s sequence)" "0 1"
grep -vFf gone manifest >kept
expect 0 "restored $(wc -l <kept) files" export s kept restored
expect 1 "has no blob" export s manifest again
diff -r restored again
(cd restored && md5sum --quiet --strict -c ../kept && same "$(find . -type f -printf x | wc -c)" "$(wc -l <../kept)")

# What md5sum itself writes is taken too: binary mark, no "./", CR LF, a comment.
(cd tree && { echo '# a comment'; md5sum -b -- '*star' 'trailing ' '#comment'; } | sed 's/$/\r/') >manifest.md5sum
blobring export s - restored3 <manifest.md5sum 2>/dev/null
cmp 'tree/trailing ' 'restored3/trailing '
cmp 'tree/#comment' 'restored3/#comment'

# No name reaches the terminal as it is; letters do.
ln -s x $'tree/\a\x9bm\xc2\x9bm\xc3\x80'
expect 0 $'left out tree/\\?\\?m\\?m\xc3\x80: a symbolic link' import s tree -v -m m

# A store, a manifest and the output inside the tree are left out, and only these.
mkdir inside
echo kept >inside/0.pak
blobring init inside/store 2>/dev/null
echo old >inside/m
: >inside/.blobring-1-0.tmp # of a killed import
expect 0 "left out: 0 symbolic links, 0 special files, 7 files of the store" import inside/store inside --force -m inside/m
same "$(cut -c35- inside/m)" ./0.pak
[ ! -e inside/.blobring-1-0.tmp ] || fail "what a killed import left was kept"
blobring import inside/store inside >inside/m 2>/dev/null
same "$(cut -c35- inside/m)" ./0.pak
