#!/bin/sh
# check_exports.sh NM LIBRARY NAMES_DIR INTERFACE_HEADER
# The dynamic symbol table of LIBRARY defines exactly the names listed in
# NAMES_DIR/*.txt (one name per line, # starts a comment) plus, for every
# X(NAME, ...) line of the default entry point table in INTERFACE_HEADER,
# NAME and _NAME.
nm_tool=$1 lib=$2 dir=$3 header=$4
tmp=$(mktemp -d) || exit 1
trap 'rm -rf "$tmp"' EXIT
"$nm_tool" -D --defined-only "$lib" | awk '{print $NF}' | grep -v '^_\?_\?\(edata\|end\|bss_start\|init\|fini\)$' | sort -u > "$tmp/have" || exit 1
{
    cat "$dir"/*.txt | sed 's/#.*//; s/[[:space:]]//g'
    sed -n 's/^[[:space:]]*X(\([A-Za-z0-9_]*\),.*/\1/p' "$header" | sed 'p; s/^/_/'
} | grep -v '^$' | sort -u > "$tmp/want"
[ "$(sed -n 's/^[[:space:]]*X(\([A-Za-z0-9_]*\),.*/\1/p' "$header" | wc -l)" -eq 206 ] ||
    { echo "the entry point table of $header does not have 206 lines"; exit 1; }
extra=$(comm -23 "$tmp/have" "$tmp/want")
missing=$(comm -13 "$tmp/have" "$tmp/want")
status=0
[ -n "$extra" ] && { echo "exported but not listed:"; echo "$extra"; status=1; }
[ -n "$missing" ] && { echo "listed but not exported:"; echo "$missing"; status=1; }
[ $status -eq 0 ] && echo "$(wc -l < "$tmp/have") exported names, as listed"
exit $status
