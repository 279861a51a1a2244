#!/usr/bin/env bash
# staged_install.sh BUILD_DIR PREFIX LIBDIR [SANITIZER]: installs the build into a staging folder (DESTDIR),
# registers the installed module with the installed trovctl, drives the installed emulator through
# the host registry alone (no build path anywhere), and renders the manual pages with warnings on.
set -euo pipefail
build=$1 prefix=$2 libdir=$3 sanitizer=${4:-}
# A program that loads a module built with a sanitizer must be built with it too.
case "$sanitizer" in
    address) san_flags=(-fsanitize=address,undefined) ;;
    thread) san_flags=(-fsanitize=thread) ;;
    *) san_flags=() ;;
esac

stage=$(mktemp -d /tmp/trovstage.XXXXXX)
sim_pid=""
cleanup() {
    if [ -n "$sim_pid" ]; then kill "$sim_pid" 2>/dev/null || true; wait "$sim_pid" 2>/dev/null || true; fi
    rm -rf "$stage"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

DESTDIR=$stage cmake --install "$build" >"$stage.log" 2>&1 || { cat "$stage.log"; rm -f "$stage.log"; fail "cmake --install"; }
rm -f "$stage.log"
root=$stage$prefix
module=$root/$libdir/trovhwiprv/libtrovhwiprv.so

# The layout.
for f in bin/trovctl bin/trovproxy-sim "$libdir/trovhwiprv/libtrovhwiprv.so" \
         "$libdir/trovhwiprv/locale/de/LC_MESSAGES/vdsprovider.mo" \
         share/man/man1/trovctl.1.gz share/man/man1/trovproxy-sim.1.gz share/man/man5/trovhwiprv-settings.5.gz \
         share/doc/trovhwiprv/settings.reg.example share/doc/trovhwiprv/kelvane.conf.example \
         share/bash-completion/completions/trovctl "$libdir/pkgconfig/trovhwiprv.pc" \
         include/trovhwiprv/platform/vds_interfaces.h include/trovhwiprv/platform/host_services.h \
         lib/systemd/system/trovproxy-sim.service; do
    [ -e "$root/$f" ] || fail "not installed: $f"
done
grep -q "^ExecStart=$prefix/bin/trovproxy-sim .*--state /var/lib/trovproxy-sim/" "$root/lib/systemd/system/trovproxy-sim.service" ||
    fail "the unit does not run the installed emulator with its state under /var/lib/trovproxy-sim"
grep -q "\"PATH\"=\"$prefix/$libdir/trovhwiprv/libtrovhwiprv.so\"" "$root/share/doc/trovhwiprv/settings.reg.example" ||
    fail "the example settings do not name the installed module"

# The package's scripts register and unregister the installed module with the installed trovctl.
for script in postinst prerm; do
    sh -n "$build/packaging/deb/$script" || fail "$script is no shell script"
done
grep -q "^ *$prefix/bin/trovctl register $prefix/$libdir/trovhwiprv/libtrovhwiprv.so$" "$build/packaging/deb/postinst" ||
    fail "postinst does not register the installed module"
grep -q "^ *$prefix/bin/trovctl unregister $prefix/$libdir/trovhwiprv/libtrovhwiprv.so" "$build/packaging/deb/prerm" ||
    fail "prerm does not unregister the installed module"

# The manual pages render without a warning.
for page in man1/trovctl.1.gz man1/trovproxy-sim.1.gz man5/trovhwiprv-settings.5.gz; do
    warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l "$root/share/man/$page" 2>&1 >/dev/null) || fail "man -l $page"
    [ -z "$warnings" ] || fail "man -l $page: $warnings"
    LC_ALL=C.UTF-8 MANWIDTH=80 man -l "$root/share/man/$page" 2>/dev/null | grep -q "SEE ALSO" || fail "$page renders empty"
done

# A host program builds against the installed headers through pkg-config.
cat >"$stage/host.cpp" <<'EOF'
#include <dlfcn.h>
#include "platform/host_services.h"
#include "platform/provider_ids.h"
#include "platform/vds_interfaces.h"
int main(int argc, char** argv) {
    void* m = dlopen(argv[1], RTLD_NOW);
    if (!m) return 2;
    auto get = reinterpret_cast<HRESULT (*)(REFCLSID, REFIID, void**)>(dlsym(m, "DllGetClassObject"));
    IClassFactory* f = nullptr;
    if (!get || get(CLSID_TrovHwProvider, IID_IClassFactory, reinterpret_cast<void**>(&f)) != S_OK) return 3;
    f->Release();
    return argc == 2 ? 0 : 4;
}
EOF
pc() { PKG_CONFIG_SYSROOT_DIR=$stage PKG_CONFIG_PATH=$root/$libdir/pkgconfig pkg-config "$@" trovhwiprv; }
# shellcheck disable=SC2046
c++ "${san_flags[@]}" $(pc --cflags) "$stage/host.cpp" -o "$stage/host" $(pc --libs) 2>&1 || fail "a host program does not build with pkg-config"
"$stage/host" "$module" || fail "a host program could not get the class factory ($?)"

# Nothing below may reach the build tree.
unset TROVCTL_MODULE TROVHWIPRV_SETTINGS TROVCTL_REGISTRY
case "$module" in "$build"*) fail "the staged module lies in the build tree" ;; esac

# The installed emulator, with a kelvane.conf the settings point at.
"$root/bin/trovproxy-sim" --scenario demo --port 0 --quiet --no-stdin --heartbeat 0 \
    --write-conf "$stage/kelvane.conf" 2>"$stage/sim.log" &
sim_pid=$!
for _ in $(seq 100); do [ -s "$stage/kelvane.conf" ] && break; sleep 0.05; done
[ -s "$stage/kelvane.conf" ] || { cat "$stage/sim.log" >&2; fail "the emulator wrote no kelvane.conf"; }
cat >"$stage/settings.reg" <<EOF
Windows Registry Editor Version 5.00

[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\kelvane\\Parameters]
"ConfigurationFile"="$stage/kelvane.conf"

[HKEY_LOCAL_MACHINE\\SOFTWARE\\Trov\\trovctl]
"HostRegistry"="$stage/host.reg"
EOF
export TROVHWIPRV_SETTINGS=$stage/settings.reg
trovctl=$root/bin/trovctl

# Registration without naming the module: the installed trovctl finds the installed one.
"$trovctl" register >"$stage/out" 2>&1 || { cat "$stage/out" >&2; fail "trovctl register"; }
grep -q "^@=\"$module\"$" "$stage/host.reg" || fail "the class keys do not name the installed module"
if grep -q "$build" "$stage/host.reg"; then fail "the host registry names the build tree"; fi
"$trovctl" providers >"$stage/out" 2>&1 || fail "trovctl providers"
grep -q "$module  yes$" "$stage/out" || { cat "$stage/out" >&2; fail "providers does not show the module loading"; }

# The provider loads from the registry and reaches the emulator.
LD_DEBUG=files "$trovctl" --json list drives >"$stage/drives" 2>"$stage/loader" ||
    { cat "$stage/drives" "$stage/loader" >&2; fail "trovctl list drives"; }
grep -q '"pwszIdentification": "3SJ01201K"' "$stage/drives" || fail "no drives listed"
grep -q "file=$module " "$stage/loader" || fail "the registered module was not the one loaded"
if grep "file=.*libtrovhwiprv" "$stage/loader" | grep -q "$build"; then fail "a module of the build tree was loaded"; fi

"$trovctl" unregister >"$stage/out" 2>&1 || { cat "$stage/out" >&2; fail "trovctl unregister"; }
if grep -q "InprocServer32\|vds\\\\Providers" "$stage/host.reg"; then fail "unregister left keys behind"; fi
echo "staged install: ok"
