#!/usr/bin/env bash
# The library's include graph runs one way: the extensions (Extras/) sit on top of the core and
# nothing in the core includes them; below the managers (Core/, Manager/), the transport, the
# models and the platform layer include neither. Prints each include that runs up; exit 1 if any.
set -euo pipefail
cd "$(dirname "$0")/../QelHttpDnsSDK"

upward() {  # upward <what may not be included> <folders that may not include it>...
    local target=$1
    shift
    grep -rnE "#include \"QelHttpDnsSDK/($target)/" "$@" || true
}

found=$(
    # The umbrella header, QelHttpDnsSDK.h, gathers every public header, the extensions' too.
    upward Extras Core Manager Network Model Reachability Log Other Const Platform QelDNSApplication.*
    upward 'Core|Manager' Network Model Reachability Log Other Const Platform
)
if [ -n "$found" ]; then
    echo "check-layers: these includes run up the layers:" >&2
    echo "$found" >&2
    exit 1
fi
echo "check-layers: no include runs up"
