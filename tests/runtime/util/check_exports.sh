#!/bin/sh
# Fails when the library exports anything outside namespace zel, or exports nothing at all.
# Usage: check_exports.sh LIBRARY
set -eu
names=$(nm -D --defined-only -C "$1" | sed 's/^[0-9a-f]* [A-Za-z] //' | grep -v '^ZEL_UTIL_0')
[ -n "$names" ] || { echo "nothing is exported"; exit 1; }
strangers=$(printf '%s\n' "$names" |
    grep -v -E '^((typeinfo( name)?|vtable|VTT) for |non-virtual thunk to )?zel::' || true)
if [ -n "$strangers" ]; then
    echo "exported without being of namespace zel:"
    printf '%s\n' "$strangers"
    exit 1
fi
third=$(printf '%s\n' "$names" | grep -E 'spdlog|fmt::|asio' || true)
if [ -n "$third" ]; then
    echo "symbols of third-party code are exported:"
    printf '%s\n' "$third"
    exit 1
fi
printf '%s\n' "$names" | grep -q '^zel::CLogMessage::GetInstance()' || { echo "the logger is missing"; exit 1; }
