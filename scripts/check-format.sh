#!/bin/bash
# Fails, naming them, when C and C++ files of the repository differ from what
# clang-format makes of them with the repository's .clang-format.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
differ=()
while IFS= read -r file; do
    if ! clang-format --dry-run --Werror "$file" >/dev/null 2>&1; then differ+=("$file"); fi
done < <(git ls-files '*.c' '*.cc' '*.h')
if [ ${#differ[@]} -gt 0 ]; then
    echo "check-format: ${#differ[@]} file(s) differ from .clang-format (run clang-format -i on them):"
    printf '  %s\n' "${differ[@]}"
    exit 1
fi
echo "check-format: every C and C++ file is formatted"
