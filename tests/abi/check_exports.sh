#!/bin/sh
# check_exports.sh NM LIBRARY NAMES_DIR
# The dynamic symbol table of LIBRARY defines exactly the names listed in
# NAMES_DIR/*.txt (one name per line, # starts a comment).
nm_tool=$1 lib=$2 dir=$3
tmp=$(mktemp -d) || exit 1
trap 'rm -rf "$tmp"' EXIT
"$nm_tool" -D --defined-only "$lib" | awk '{print $NF}' | grep -v '^_\?_\?\(edata\|end\|bss_start\|init\|fini\)$' | sort -u > "$tmp/have" || exit 1
cat "$dir"/*.txt | sed 's/#.*//; s/[[:space:]]//g' | grep -v '^$' | sort -u > "$tmp/want"
extra=$(comm -23 "$tmp/have" "$tmp/want")
missing=$(comm -13 "$tmp/have" "$tmp/want")
status=0
[ -n "$extra" ] && { echo "exported but not listed:"; echo "$extra"; status=1; }
[ -n "$missing" ] && { echo "listed but not exported:"; echo "$missing"; status=1; }
[ $status -eq 0 ] && echo "$(wc -l < "$tmp/have") exported names, as listed"
exit $status
