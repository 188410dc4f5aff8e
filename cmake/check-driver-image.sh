#!/bin/sh
# Refuses a driver library that holds what a Windows kernel image cannot have: the C++
# standard library, exceptions, RTTI, operator new/delete, thread-safe static guards, and
# (outside sanitizer builds, which add their own module constructors) global constructors
# or destructors.
# usage: check-driver-image.sh <static library> <variant>
set -eu
lib=$1
variant=$2

undefined=$(nm -u "$lib" 2>/dev/null | awk '{print $NF}' | sort -u)
bad=$(printf '%s\n' "$undefined" | grep -E \
  '^_Zn[wa]|^_Zd[la]|^__cxa_(throw|allocate_exception|begin_catch|end_catch|rethrow|guard_acquire|guard_release|atexit)$|^__gxx_personality|^_ZSt|^_ZNSt|^_ZNKSt|^_ZTI|^__dynamic_cast$|^_Unwind_' || true)
if [ -n "$bad" ]; then
  echo "error: driver image $lib uses what a kernel image cannot have:" >&2
  printf '%s\n' "$bad" | c++filt | sed 's/^/  /' >&2
  exit 1
fi

if [ "$variant" = "default" ]; then
  ctors=$(objdump -h "$lib" 2>/dev/null | awk '$2 ~ /^\.(init_array|ctors|fini_array|dtors)/ && $3 != "00000000" {print $2}' | sort -u)
  if [ -n "$ctors" ]; then
    echo "error: driver image $lib has global constructors or destructors (sections: $ctors)" >&2
    objdump -h "$lib" | awk '/^In archive|file format/ {f=$0} $2 ~ /^\.(init_array|ctors)/ {print "  " f}' >&2
    exit 1
  fi
fi
exit 0
