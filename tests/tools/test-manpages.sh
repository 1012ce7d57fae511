#!/usr/bin/env bash
# The manual pages render without a warning and document what the tools
# accept: every option and every command that karvexctl's and karvex-emu's
# --help texts list appears in the tool's page.
# The library's page names every function of the public header.
# Usage: test-manpages.sh MAN_DIR KARVEXCTL KARVEX_EMU HEADER
HARNESS_DIR=$(cd "$(dirname "$0")" && pwd)
. "$HARNESS_DIR/harness.sh"
MAN_DIR=$1
KARVEXCTL=$2
KARVEX_EMU=$3
HEADER=$4

# Plain text of a page, as an 80-column terminal shows it.
render() {
    LC_ALL=C MANWIDTH=80 MAN_KEEP_FORMATTING= man -l "$1" 2>/dev/null | col -b
}

# Every option a --help text names: "-x, --long" and "--long" alone.
options_in_help() {
    grep -oE '(^|[ ,])--?[a-zA-Z][a-zA-Z-]*' | sed 's/^[ ,]*//' | sort -u
}

# Checks that each word of the list on stdin appears in the page's text
# (called with a redirection, not in a pipe, so that failures count).
expect_in_page() { # PAGE WHAT
    local text word
    text=$(render "$MAN_DIR/$1")
    while read -r word; do
        [ -n "$word" ] || continue
        grep -qF -- "$word" <<<"$text" || fail "$1 does not mention $2 '$word'"
    done
}

test_pages_render_without_warnings() {
    local page warnings
    for page in karvexctl.1 karvex-emu.1 libkarvex.3; do
        [ -s "$MAN_DIR/$page" ] || { fail "$page not built"; continue; }
        warnings=$(MANWIDTH=80 man --warnings -l "$MAN_DIR/$page" 2>&1 >/dev/null)
        [ -z "$warnings" ] || fail "$page: $warnings"
        render "$MAN_DIR/$page" | grep -q '^EXAMPLES\?$' || fail "$page has no EXAMPLE(S) section"
    done
    for page in karvexctl.1 karvex-emu.1; do
        render "$MAN_DIR/$page" | grep -q '^EXIT STATUS$' || fail "$page has no EXIT STATUS section"
    done
}

test_karvexctl_page_covers_every_command_and_option() {
    local help commands cmd
    help=$("$KARVEXCTL" --help)
    # Commands are the indented lowercase words under "Commands:" ("gpio mode", "list", ...).
    commands=$(sed -n '/^Commands:/,/^$/p' <<<"$help" | sed -n 's/^  \([a-z0-9]\+\( [a-z]\+\)\?\)\( [A-Z].*\| \{2,\}.*\)\?$/\1/p')
    [ "$(wc -l <<<"$commands")" -ge 8 ] || fail "found only these commands in --help: $commands"
    expect_in_page karvexctl.1 command <<<"$commands"
    expect_in_page karvexctl.1 option < <(
        options_in_help <<<"$help"
        while read -r cmd; do
            # shellcheck disable=SC2086
            "$KARVEXCTL" $cmd --help | options_in_help
        done <<<"$commands" | sort -u)
}

test_karvex_emu_page_covers_every_option() {
    local opts
    opts=$("$KARVEX_EMU" --help | sed -n '/^Options:/,/^$/p' | options_in_help)
    [ "$(wc -l <<<"$opts")" -ge 10 ] || fail "found only these options in --help: $opts"
    expect_in_page karvex-emu.1 option <<<"$opts"
}

test_library_page_names_every_function() {
    expect_in_page libkarvex.3 function < <(grep -oE 'KARVEX_[A-Za-z0-9]+\(' "$HEADER" | tr -d '(' | sort -u)
}

run_tests
