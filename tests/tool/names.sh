# A tree with names that shells fear, through a manifest and back.
. "$(dirname "$0")/support.sh" "$@"

mkdir -p tree/$'dir\nwith newline' "tree/ "
names=('-' '--help' ' leading' '*star' 'back\slash' $'new\nline' $'return\r' $'\\n' $'\xff\xfe not UTF-8' 'trailing '
  $'\x01\x1b[2J\xc2\x9b' "$(printf 'n%.0s' {1..255})" '#comment' $'dir\nwith newline/x' ' /y')
for name in "${names[@]}"; do printf '%s' "$name" >"tree/$name"; done
seq 1001 | split -l 1 -a 3 - tree/ # more than one transaction takes
count=$((1001 + ${#names[@]}))

expect 0 "store with 2 slots" init s
expect 0 "imported $count files" import s tree -m manifest
same "$(sort manifest)" "$(cd tree && find . -type f -exec md5sum {} + | sort)"
expect 0 "0 new blobs stored.*$count files had contents" import s tree -m again
cmp manifest again
expect 0 "restored $count files" export s manifest restored
diff -r tree restored

# What md5sum itself writes is taken too: binary mark, no "./", CR LF, a comment.
(cd tree && { echo '# a comment'; md5sum -b -- '*star' 'trailing ' '#comment'; } | sed 's/$/\r/') | blobring export s - restored2
diff 'tree/trailing ' 'restored2/trailing '

# No name reaches the terminal as it is; letters do.
ln -s x $'tree/\a\x9bm\xc2\x9bm\xc3\x80'
expect 0 $'left out tree/\\?\\?m\\?m\xc3\x80: a symbolic link' import s tree -v -m m

# A store, a manifest and the output inside the tree are left out, and only these.
mkdir inside
echo kept >inside/0.pak
blobring init inside/store
: >inside/.blobring-1-0.tmp # of a killed import
for output in "-m inside/m" "-m inside/m --force"; do
  expect 0 "6 files of the store|7 files of the store" import inside/store inside $output
  same "$(cut -c35- inside/m) $(find inside -name '.blobring*')" "./0.pak "
done
