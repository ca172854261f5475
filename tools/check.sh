# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# shellcheck disable=SC2154 # root is set by ./dev, which sources this
# What ./dev check looks at; sourced by it.

# sources KIND: the tree's files of this kind, relative and NUL-terminated; new ones count before they
# are added to the index. The kinds are cpp, shell, and licensed: every source outside of debian/,
# whose licence is in debian/copyright.
sources() {
    local file first shebang='^#!.*(/| )(ba|da)?sh( |$)'
    git -C "$root" ls-files -z --cached --others --exclude-standard |
        while IFS= read -r -d '' file; do
            [[ -f $root/$file ]] || continue # deleted, and not yet removed from the index
            case $1 in
            cpp) [[ $file =~ \.(cpp|h)$ ]] || continue ;;
            shell)
                IFS= read -r first <"$root/$file" || true
                [[ $file == *.sh || $first =~ $shebang ]] || continue
                ;;
            licensed)
                [[ $file != debian/* ]] || continue
                IFS= read -r -n 2 first <"$root/$file" || true
                [[ $file =~ (\.(cpp|h|c|sh|py|cmake)|(^|/)CMakeLists\.txt)$ || $first == '#!' ]] ||
                    continue
                ;;
            esac
            printf '%s\0' "$file"
        done
}

check_format() {
    sources cpp | xargs -0 -r clang-format --dry-run -Werror
}

check_includes() {
    tools/check-includes --self-test && tools/check-includes
}

check_english() {
    tools/check-english --self-test && tools/check-english
}

check_commits() {
    tools/check-commits --self-test && tools/check-commits
}

check_scripts() {
    tools/read-results --self-test && sources shell | xargs -0 -r shellcheck -x
}

# Each source names its licence in one of its first three lines.
check_licences() {
    local file failed=0 licence='SPDX-License-Identifier: Apache-2\.0'
    while IFS= read -r -d '' file; do
        # No pipe: head(1) could fail with SIGPIPE after a match.
        if ! grep -qxE "(//|#) $licence" < <(head -n 3 "$file"); then
            echo "$file: has no line SPDX-License-Identifier: Apache-2.0"
            failed=1
        fi
    done < <(sources licensed)
    return "$failed"
}

# Each public header compiles alone, with the flags of the installed package and under warnings
# that a user may have turned on; the logging service's is also C.
check_headers() {
    local qt common=(-fsyntax-only -Wall -Wextra -Wpedantic -Wshadow -Werror -Iliborulog/include)
    read -ra qt < <(pkg-config --cflags Qt5Core)
    printf '%s\0' include/oruio/*.h liborulog/include/orulog/*.h |
        xargs -0 -n 1 -P "$(nproc)" g++ "${common[@]}" -std=c++17 -fPIC -D_FILE_OFFSET_BITS=64 \
            -DQT_NO_KEYWORDS -Iinclude "${qt[@]/#-I/-isystem}" -x c++ /dev/null -include || return 1
    printf '%s\0' liborulog/include/orulog/*.h |
        xargs -0 -n 1 gcc "${common[@]}" -std=c11 -x c /dev/null -include
}

# Words that have no place in the tree: references to documents that are not in it, paths of
# somebody's machine, hosts of package registries, and notes of unfinished work. The patterns are
# spelled so that they do not match themselves.
check_words() {
    local everywhere=(
        '[s]pec\.md'
        '\b(the|our) [s]pec(ification)?\b'
        '\b[P]arts? [1-6]\.[1-6]'
        '\.\./[s]hared'
        '[F]IELD_GUIDE'
        '/[w]ork/(main|steering|shared|\.library)'
        '\b(deb|ftp|archive|security|snapshot|packages)\.[d]ebian\.org'
        '\b[p]ypi\.org' 'python[h]osted\.org' '[n]pmjs\.(com|org)' 'crates\.[i]o\b' 'ruby[g]ems\.org'
        '[d]ocker\.io' '[g]hcr\.io' '\bquay\.[i]o' '[p]kg\.dev\b' 'proxy\.[g]olang'
        'conan\.[i]o\b' 'maven\.[o]rg'
    )
    local unfinished='\b([T]ODO|[F]IXME|[X]XX|[H]ACK)\b'
    local found=0 pattern
    for pattern in "${everywhere[@]}"; do
        is_absent -i -e "$pattern" || found=1
    done
    is_absent -e "$unfinished" || found=1
    return "$found"
}

# is_absent ARGUMENT...: git grep's; prints what is found. A failure of grep is no absence.
is_absent() {
    local status=0
    git grep --untracked -I -n -P "$@" || status=$?
    [[ $status -eq 1 ]]
}

# tidy PRESET PATTERN: the files of the tree that the preset compiles and the pattern matches.
tidy() {
    local compiled files
    compiled=$(sed -n 's/^ *"file": "\(.*\)",\{0,1\}$/\1/p' "build/$1/compile_commands.json")
    files=$(comm -12 <(sort -u <<<"$compiled") \
        <(sources cpp | tr '\0' '\n' | sed "s|^|$root/|" | sort) | grep "$2") || return 1
    xargs -d '\n' -n 1 -P "$(nproc)" clang-tidy -p "build/$1" --quiet <<<"$files"
}

check_tidy() {
    configure lint && configure fuzz || return 1
    local failed=0
    tidy lint "$tidied" || failed=1
    tidy fuzz "^$root/tests/fuzz/" || failed=1
    return "$failed"
}

# check [--short]: --short lints the libraries only.
check() {
    local name failed=() tidied=.
    cd "$root" || return
    case ${1-} in
    --short) tidied="^$root/\(src\|liborulog\)/" ;;
    ?*) die "check: unknown argument '$1'" ;;
    esac
    for name in words english licences commits includes scripts format headers tidy; do
        say "checking $name"
        quietly "check-$name" "check_$name" || failed+=("$name")
        grep '^skipped: ' "build/log/check-$name.log" >&2 || true
    done
    [[ ${#failed[@]} -eq 0 ]] || die "check failed: ${failed[*]}"
}
