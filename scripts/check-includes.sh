#!/usr/bin/env bash
# Fails when a folder includes a header of a folder it may not use. The table below is the house's layering:
# each folder may include its own headers and those of the folders listed for it, nothing else of this project.
# Tests, benchmarks and fuzz targets may include what the folder they exercise may, plus that folder.
set -euo pipefail
cd "$(dirname "$0")/.."

declare -A may=(
  [support/exceptions]=""
  [support/log]="support/exceptions"
  [support/system]="support/exceptions support/log"
  [support/text]="support/exceptions support/log support/system"
  [support/variable_expander]="support/exceptions support/log support/system support/text"
  [packaging/imff_box]="support/*"
  [packaging/codec_box]="packaging/imff_box support/*"
  [packaging/fmp4_types]="support/*"
  [packaging/encryption]="packaging/imff_box packaging/fmp4_types support/*"
  [packaging/kms_clients]="packaging/encryption packaging/imff_box packaging/fmp4_types support/*"
  [packaging/lib_parse_es]="packaging/fmp4_types support/*"
  [packaging/imff_samples]="packaging/lib_parse_es packaging/imff_box packaging/fmp4_types support/*"
  [packaging/synchronizator]="packaging/fmp4_types support/*"
  [packaging/synchronizator_lowlatency]="packaging/synchronizator packaging/fmp4_types support/*"
  [packaging/fmp4]="packaging/* support/*"
  [filter]="packaging/* support/*"
  # The host reads what the filter writes: the filter, the shared records and the reader of the chunks.
  [apps/fmp4mux]="filter packaging/fmp4_types packaging/fmp4/output support/*"
)

# The folder (key of the table) that a path belongs to.
owner() {
  local path=$1 key best=""
  for key in "${!may[@]}"; do
    case "$path" in "$key"/*) [ ${#key} -gt ${#best} ] && best=$key ;; esac
  done
  echo "$best"
}

allowed() {  # FOLDER INCLUDED-PATH
  local folder=$1 inc=$2 pattern
  case "$inc" in "$folder"/*) return 0 ;; esac
  for pattern in ${may[$folder]}; do
    # shellcheck disable=SC2254
    case "$inc" in ${pattern%/\*}/*) return 0 ;; esac
  done
  return 1
}

bad=0
while IFS= read -r file; do
  rel=${file#./}
  under=$rel
  case "$rel" in tests/*|bench/*|fuzz/*) under=${rel#*/} ;; esac
  folder=$(owner "$under")
  [ -n "$folder" ] || continue
  while IFS= read -r inc; do
    target=$(owner "$inc")
    [ -n "$target" ] || continue  # not a header of this project's folders
    if ! allowed "$folder" "$inc"; then
      echo "check-includes: $rel includes $inc, but $folder may not use $target" >&2
      bad=1
    fi
  done < <(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$file")
done < <(git ls-files '*.h' '*.cpp' | grep -E '^(support|packaging|filter|apps|tests|bench|fuzz)/')

[ $bad -eq 0 ] && echo "check-includes: every folder includes only what it may use"
exit $bad
