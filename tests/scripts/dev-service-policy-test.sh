#!/usr/bin/env bash
# ./dev's service policy around package installs: an administrator's own policy-rc.d is never
# written or removed; ours exists only while the command runs, also when the command fails.
set -euo pipefail
dev=$1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export PROV_POLICY_RC=$scratch/policy-rc.d
DEV_FUNCTIONS_ONLY=1 source "$dev"
set +e

fail() { echo "FAIL: $*" >&2; exit 1; }

# An administrator's policy: the command runs under it, the file stays byte for byte.
printf '#!/bin/sh\nexit 0 # admin\n' >"$PROV_POLICY_RC"
with_service_policy grep -q admin "$PROV_POLICY_RC" || fail "the command did not run under the admin's policy"
grep -q "exit 0 # admin" "$PROV_POLICY_RC" || fail "the admin's policy was changed"

# A link there is the administrator's too.
rm -f "$PROV_POLICY_RC"
ln -s /nonexistent "$PROV_POLICY_RC"
with_service_policy true
[ -L "$PROV_POLICY_RC" ] || fail "the admin's link was removed"
rm -f "$PROV_POLICY_RC"

# None: ours denies every service while the command runs and is gone afterwards.
with_service_policy sh -c '"$0"; [ $? -eq 101 ]' "$PROV_POLICY_RC" || fail "ours did not deny services"
[ ! -e "$PROV_POLICY_RC" ] || fail "ours stayed after the command"

# A failing command: its status comes back, ours is gone all the same.
with_service_policy sh -c 'exit 7'
[ $? -eq 7 ] || fail "the command's status was lost"
[ ! -e "$PROV_POLICY_RC" ] || fail "ours stayed after a failed command"
echo "service policy: kept the admin's, removed ours"
