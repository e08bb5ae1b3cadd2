#!/usr/bin/env bash
# tools/convert-tree over SSH, as docs/scale.md describes it: a private sshd on the loopback
# addresses stands for two hosts (127.0.0.1 and 127.0.0.2, two logins in one --sshloginfile).
# Checked: with a shared folder (the same paths on every host) and with --transfer (inputs copied
# to the hosts and TIFFs copied back), every file is converted once, by both hosts, with the same
# bytes as a local run. Needs root (for sshd) and the openssh-server and rsync packages; skipped
# (exit 77) when this machine cannot run a private sshd.
# Usage: convert_tree_ssh.sh SOURCE_DIR ENGINE WORK_DIR
set -euo pipefail
src=$1 engine=$(readlink -f "$2") work=$3
tree=$src/tools/convert-tree
data=$src/tests/quarvex/data
fail() { echo "FAIL: $*" >&2; exit 1; }
skip() { echo "SKIP: $*" >&2; exit 77; }

[ "$(id -u)" = 0 ] || skip "a private sshd needs root here"
[ -x /usr/sbin/sshd ] || skip "openssh-server is not installed"
command -v rsync > /dev/null || skip "rsync is not installed"

rm -rf "$work"
mkdir -p "$work/ssh"
chmod 700 "$work/ssh"
ssh-keygen -q -t ed25519 -N '' -f "$work/ssh/host_key"
ssh-keygen -q -t ed25519 -N '' -f "$work/ssh/client_key"
cp "$work/ssh/client_key.pub" "$work/ssh/authorized_keys"
mkdir -p /run/sshd
port=$(/usr/bin/python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
cat > "$work/ssh/sshd_config" <<CONF
ListenAddress 127.0.0.1:$port
ListenAddress 127.0.0.2:$port
HostKey $work/ssh/host_key
PidFile $work/ssh/sshd.pid
AuthorizedKeysFile $work/ssh/authorized_keys
StrictModes no
PasswordAuthentication no
KbdInteractiveAuthentication no
PermitRootLogin prohibit-password
UsePAM no
LogLevel ERROR
CONF
/usr/sbin/sshd -f "$work/ssh/sshd_config" -E "$work/ssh/sshd.log" || skip "sshd does not start: $(cat "$work/ssh/sshd.log")"
# The connection sharing sockets want a short path.
control=$(mktemp -d /tmp/qx-ssh-XXXXXX)
stop_ssh() {
    for h in 127.0.0.1 127.0.0.2; do ssh -F "$work/ssh/config" -O exit $h 2> /dev/null || true; done
    kill "$(cat "$work/ssh/sshd.pid" 2> /dev/null)" 2> /dev/null || true
    rm -rf "$control"
}
trap stop_ssh EXIT
cat > "$work/ssh/config" <<CONF
Host *
    Port $port
    User $(id -un)
    IdentityFile $work/ssh/client_key
    IdentitiesOnly yes
    StrictHostKeyChecking no
    UserKnownHostsFile /dev/null
    LogLevel ERROR
    BatchMode yes
    ControlMaster auto
    ControlPath $control/%C
    ControlPersist 60
CONF
# Two hosts, two engines each, as GNU parallel's --sshloginfile lines (an ssh command per host).
cat > "$work/hosts" <<HOSTS
2/ssh -F $work/ssh/config 127.0.0.1
2/ssh -F $work/ssh/config 127.0.0.2
HOSTS
for _ in $(seq 50); do
    ssh -F "$work/ssh/config" 127.0.0.2 true 2> /dev/null && break
    sleep 0.1
done
ssh -F "$work/ssh/config" 127.0.0.2 true || fail "cannot log in over the loopback sshd"

# Remote jobs note their host in the engine starts: a wrapper at the same path on both "hosts".
cat > "$work/engine" <<SH
#!/usr/bin/env bash
echo "\${SSH_CONNECTION##* } \$(echo \$SSH_CONNECTION | cut -d' ' -f3) \${@: -1}" >> "$work/started"
exec "$engine" "\$@"
SH
chmod +x "$work/engine"

in=$work/in
for i in $(seq -f %02g 1 8); do
    mkdir -p "$in/set$((10#$i % 2))/sub dir"
    cp "$data/two_pages_pxlmono_75dpi.pxl" "$in/set$((10#$i % 2))/sub dir/job $i.pxl"
done
"$engine" -b 1 -c 7 -o "$work/local.tif" -i "$in/set0/sub dir/job 02.pxl"

for mode in shared transfer; do
    out=$work/out-$mode
    : > "$work/started"
    args=(--engine "$work/engine" --sshloginfile "$work/hosts")
    [ $mode = transfer ] && args+=(--transfer)
    rc=0
    "$tree" "${args[@]}" "$in" "$out" -- -b 1 -c 7 2> "$work/log-$mode" || rc=$?
    log=$(cat "$work/log-$mode")
    [ $rc = 0 ] || fail "$mode: convert-tree exited $rc:"$'\n'"$log"
    grep -qF "converted 8, with warnings 0, failed 0" <<< "$log" || fail "$mode: summary:"$'\n'"$log"
    grep -qF "pages 16 in" <<< "$log" || fail "$mode: pages:"$'\n'"$log"
    [ "$(find "$out" -name '*.tif' | wc -l)" = 8 ] || fail "$mode: not 8 outputs"
    for i in $(seq -f %02g 1 8); do
        cmp -s "$work/local.tif" "$out/set$((10#$i % 2))/sub dir/job $i.tif" || fail "$mode: job $i differs from a local run"
    done
    [ "$(wc -l < "$work/started")" = 8 ] || fail "$mode: $(wc -l < "$work/started") engine starts for 8 files"
    hosts=$(awk '{ print $2 }' "$work/started" | sort -u | tr '\n' ' ')
    [ "$hosts" = "127.0.0.1 127.0.0.2 " ] || fail "$mode: jobs ran on '$hosts', not on both hosts"
    echo "$mode: 8 files on hosts $hosts"
done
# --transfer leaves nothing behind on the hosts.
leftover=$(ssh -F "$work/ssh/config" 127.0.0.1 'ls -d ~/.parallel/tmp/*-*-* 2>/dev/null' || true)
[ -z "$leftover" ] || fail "--transfer left work folders behind: $leftover"
echo "convert-tree over SSH: all checks passed"
