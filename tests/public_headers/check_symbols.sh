#!/usr/bin/env bash
# check_symbols.sh LIBRARY: the shared library is named by its major version and exports the public
# classes only. Anything else that leaks out becomes part of an ABI that nobody meant to keep.
set -euo pipefail
library=$1
failed=0

soname=$(objdump -p "$library" | awk '$1 == "SONAME" {print $2}')
[[ $soname == libjovu.so.1 ]] || {
    echo "SONAME is '$soname', not libjovu.so.1" >&2
    failed=1
}

# Lines of "TYPE NAME". Instantiations of the standard library's templates are weak and visible by
# the standard library's own wish.
exported=$(nm --dynamic --demangle --defined-only "$library" | cut -d' ' -f2-)
class='Jovu(Client|ScanHold|CommandInterface|EventInterface|JobInterface|Transport|UsbClient|Exception)'
strangers=$(grep -vE \
    -e "^[TWVDBR] (vtable for |VTT for |typeinfo (name )?for |(non-)?virtual thunk to )?$class(::|\$)" \
    -e '^[WVu] ([a-z].* )?(std|__gnu_cxx)::' \
    -e '^[WVu] (vtable|typeinfo|typeinfo name|guard variable) for (std|__gnu_cxx)::' \
    <<<"$exported") || true
if [[ -n $strangers ]]; then
    echo "exported, but not of a public class:" >&2
    echo "$strangers" >&2
    failed=1
fi

for needed in 'JovuClient::JovuClient()' 'JovuClient::shutdown()' 'typeinfo for JovuException' \
    'JovuTransport::last_send_error[abi:cxx11]()'; do
    grep -qF " $needed" <<<"$exported" || {
        echo "not exported: $needed" >&2
        failed=1
    }
done
exit "$failed"
