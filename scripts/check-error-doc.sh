#!/usr/bin/env bash
# docs/errors.md and the error table (QelHttpDnsSDK/Other/QelDNSErrorTable.h) agree: every row of
# the table appears on the page with its code, both names, its message and its gloss, and every
# code row of the page names a row of the table. Usage: check-error-doc.sh [C compiler]
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
doc="$root/docs/errors.md"

# One line per row: code|name|C name|"message"|"gloss", expanded by the C preprocessor itself.
rows=$(printf '#include "QelHttpDnsSDK/Other/QelDNSErrorTable.h"\nQEL_DNS_ERROR_TABLE(ROW)\n' |
    "${1:-cc}" -E -P -x c -I"$root" -D'ROW(n,c,code,m,g)=@code|n|QEL_HTTPDNS_E_##c|m|g' - |
    tr '@' '\n' | sed -e 's/ *$//' | grep -E '^-?[0-9]+\|')

status=0
complain() { echo "check-error-doc: $*" >&2; status=1; }

while IFS='|' read -r code name cname message gloss; do
    gloss=${gloss#\"}; gloss=${gloss%\"}
    text="($gloss"
    [ "$message" != '""' ] && text="$message ($gloss"
    grep -qF "| $code | \`$name\`, \`$cname\` | " "$doc" ||
        complain "$name ($code, $cname) has no row in docs/errors.md"
    while IFS= read -r line; do
        [[ "$line" == *"$text"* ]] || complain "docs/errors.md: $name should read $text): $line"
    done < <(grep -F "| \`$name\`, " "$doc" || true)
done <<<"$rows"

while IFS= read -r line; do
    grep -qxF -e "$line" <<<"$(cut -d'|' -f1-3 <<<"$rows")" ||
        complain "docs/errors.md names a code the table does not have: $line"
done < <(sed -nE 's/^\| (-?[0-9]+) \| `(k[A-Za-z0-9]+)`, `(QEL_HTTPDNS_E_[A-Z0-9_]+)` \|.*/\1|\2|\3/p' "$doc")

[ "$status" = 0 ] && echo "check-error-doc: docs/errors.md matches the error table"
exit "$status"
