#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# check_symbols.sh LIBRARY: the shared library is named by its major version and exports the public
# classes and functions only. Anything else that leaks out becomes part of an ABI that nobody meant
# to keep.
set -euo pipefail
library=$1
failed=0

soname=$(objdump -p "$library" | awk '$1 == "SONAME" {print $2}')
[[ $soname == libjovu.so.1 ]] || {
    echo "SONAME is '$soname', not libjovu.so.1" >&2
    failed=1
}

# Judged by their mangled names, in which a class or function is its length and name, and which
# begin with the scope. Instantiations of the standard library's templates are weak, and visible by
# the standard library's own wish.
classes=
for class in JovuClient JovuScanPause JovuCommandInterface JovuEventInterface JovuJobInterface \
    JovuTransport JovuUsbClient JovuException JovuDfu JovuResponseTimeout jovu_error_name \
    escape_spaces JovuCallbackClient jovu_set_log_handler jovu_version JovuDeviceFilter \
    jovu_state_name; do
    classes+="${classes:+|}${#class}$class"
done
# Lines of "TYPE NAME".
exported=$(nm --dynamic --defined-only "$library" | sed 's/^[0-9a-f]* *//')
prefix='_Z(T[VTIS]|Thn?[0-9]+_|GV)?Z?N?K?'
strangers=$(grep -vE -e "^[TWVDBR] $prefix($classes)" -e "^[WVu] $prefix(S[tabsiod]|9__gnu_cxx)" \
    <<<"$exported") || true
if [[ -n $strangers ]]; then
    echo "exported, but not of a public class:" >&2
    c++filt <<<"$strangers" >&2
    failed=1
fi

for needed in 'JovuClient::JovuClient()' 'JovuClient::shutdown()' 'typeinfo for JovuException' \
    'JovuTransport::last_send_error[abi:cxx11]()' 'JovuDfu::GetDfuDevices[abi:cxx11]()' 'escape_spaces('; do
    c++filt <<<"$exported" | grep -F " $needed" >/dev/null || {
        echo "not exported: $needed" >&2
        failed=1
    }
done
exit "$failed"
