#!/usr/bin/env bash
# Compares the dynamic symbols a shared library defines, demangled, with the
# expected list, so that nothing joins or leaves the exported surface
# unnoticed. Not compared: the linker's section markers, the sanitizer
# runtime's symbols, and weak template instantiations that name no type of
# ours (the standard library's templates are visible by default and the
# compiler emits them as it inlines).
#   check-symbols.sh LIBRARY EXPECTED_LIST
set -euo pipefail
library=$1
expected=$2

actual=$(nm -D --defined-only --demangle "$library" | cut -d' ' -f2- | awk '
    { type = $1; name = substr($0, 3) }
    name ~ /^(__bss_start|_edata|_end|_init|_fini)$/ { next }
    name ~ /^_*(asan|odr_asan|sanitizer|ubsan|lsan)/ { next }
    type ~ /^[WVu]$/ && name !~ /Korvane::/ { next }
    { print name }' | LC_ALL=C sort -u)

if ! diff -u --label expected --label exported <(grep -v '^#' "$expected" | LC_ALL=C sort -u) <(echo "$actual"); then
    echo "check-symbols: the exported surface of $(basename "$library") differs from" \
        "$expected" >&2
    exit 1
fi
echo "check-symbols: $(echo "$actual" | wc -l) symbols as expected"
