#!/usr/bin/env bash
# Parse check of packaging/udev/70-karvex.rules, for systems whose udevadm has
# no 'verify' (systemd < 253, e.g. Debian 12); 'udevadm verify' runs too when
# present. Every rule line (and every commented-out rule line of the group
# variant) must be comma-separated KEY[{ATTR}]OP"VALUE" pairs with known keys
# and operators that fit them; the three adapters must be matched; nothing may
# make the node world-writable.
# Usage: test-udev-rule.sh RULES_FILE
HARNESS_DIR=$(cd "$(dirname "$0")" && pwd)
. "$HARNESS_DIR/harness.sh"
RULES=$1

MATCH_KEYS="ACTION DEVPATH KERNEL KERNELS NAME SUBSYSTEM SUBSYSTEMS DRIVER DRIVERS ATTR ATTRS ENV TAG TAGS TEST PROGRAM RESULT SYMLINK"
ASSIGN_KEYS="NAME SYMLINK OWNER GROUP MODE TAG ENV RUN LABEL GOTO IMPORT OPTIONS ATTR"
ATTR_KEYS="ATTR ATTRS ENV TEST IMPORT RUN"

# Checks one rule; prints a reason and returns 1 when it is malformed.
check_rule() {
    local line=$1 rest pair key attr op value
    rest=$line
    while [ -n "$rest" ]; do
        if [[ ! "$rest" =~ ^([A-Z_]+)(\{([^}]+)\})?(==|!=|\+=|-=|:=|=)\"([^\"]*)\"(,[[:space:]]*|[[:space:]]*$)(.*)$ ]]; then
            echo "cannot parse '$rest'"
            return 1
        fi
        key=${BASH_REMATCH[1]}
        attr=${BASH_REMATCH[3]}
        op=${BASH_REMATCH[4]}
        value=${BASH_REMATCH[5]}
        rest=${BASH_REMATCH[7]}
        if [[ -n "$attr" && " $ATTR_KEYS " != *" $key "* ]]; then
            echo "$key takes no {attribute}"
            return 1
        fi
        if [[ -z "$attr" && ( "$key" == ATTRS || "$key" == ENV ) ]]; then
            echo "$key needs an {attribute}"
            return 1
        fi
        case "$op" in
        "==" | "!=")
            [[ " $MATCH_KEYS " == *" $key "* ]] || { echo "$key cannot be matched"; return 1; } ;;
        *)
            [[ " $ASSIGN_KEYS " == *" $key "* ]] || { echo "$key cannot be assigned"; return 1; } ;;
        esac
        if [ "$key" = MODE ] && [[ ! "$value" =~ ^0[0-7]{3}$ ]]; then
            echo "MODE '$value' is not an octal mode"
            return 1
        fi
    done
    return 0
}

rules=$(grep -Ev '^[[:space:]]*(#|$)' "$RULES")
variant=$(sed -n 's/^#\(SUBSYSTEM==.*\)$/\1/p' "$RULES")

test_every_rule_parses() {
    local line why
    [ -n "$rules" ] || fail "no rules in $RULES"
    while IFS= read -r line; do
        why=$(check_rule "$line") || fail "rule '$line': $why"
    done <<<"$rules"$'\n'"$variant"
}

test_checker_rejects_malformed_rules() {
    local bad
    while IFS= read -r bad; do
        check_rule "$bad" >/dev/null && fail "accepted '$bad'"
    done <<'CASES'
SUBSYSTEM=="hidraw" ATTRS{idVendor}=="1209"
SUBSYSTEM=="hidraw", ATTRS=="1209"
SUBSYSTEM=="hidraw", ATTRS{idVendor}="1209"
SUBSYSTEM="hidraw"
SUBSYSTEM=="hidraw", TAG+=uaccess
SUBSYSTEM=="hidraw", MODE="666"
SUBSYSTEM=="hidraw", FOO="bar"
SUBSYSTEM{x}=="hidraw"
CASES
}

test_three_adapters_tagged_for_uaccess() {
    local pid
    for pid in 7a01 7a02 7a03; do
        grep -Eq "^SUBSYSTEM==\"hidraw\", ATTRS\{idVendor\}==\"1209\", ATTRS\{idProduct\}==\"$pid\", TAG\+=\"uaccess\"$" <<<"$rules" ||
            fail "no uaccess rule for 1209:$pid"
        grep -Eq "ATTRS\{idProduct\}==\"$pid\", GROUP=\"[a-z_][a-z0-9_-]*\", MODE=\"0660\"$" <<<"$variant" ||
            fail "no commented group variant for 1209:$pid"
    done
    [ "$(wc -l <<<"$rules")" = 3 ] || fail "expected exactly three active rules"
    if grep -Ev 'SUBSYSTEM=="hidraw"' <<<"$rules" | grep -q .; then
        fail "a rule not limited to hidraw"
    fi
}

test_nothing_world_writable() {
    if grep -Eq 'MODE[:+]?="0?[0-7][0-7][2367]"' "$RULES"; then
        fail "a MODE that lets everybody write"
    fi
    grep -q '0666' "$RULES" && fail "0666 appears in the rule file"
    return 0
}

test_udevadm_verify_when_available() {
    if udevadm verify --help >/dev/null 2>&1; then
        run_prog udevadm verify --no-style "$RULES"
        status_is 0 "udevadm verify: $errors"
    fi
}

run_tests
