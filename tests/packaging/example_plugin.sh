#!/usr/bin/env bash
# Installs the build into a fresh prefix and builds the example plugin and app out of tree against
# it, as their authors would; the plugin is signed with a CA made here and checked as the service would.
# Usage: example_plugin.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build="$1"
source="$2"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null

cd "$work"
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj "/CN=Example CA" \
  -keyout ca.key -out ca.pem 2>/dev/null
openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj "/CN=Example Signer" \
  -keyout signer.key -out signer.csr 2>/dev/null
printf 'basicConstraints=critical,CA:FALSE\nkeyUsage=critical,digitalSignature\nextendedKeyUsage=codeSigning\n' > signer.ext
openssl x509 -req -in signer.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 1 -extfile signer.ext \
  -out signer.pem 2>/dev/null

cmake -G Ninja -S "$source/examples/hello-plugin" -B "$work/hello" -DCMAKE_PREFIX_PATH="$work/prefix" \
  -DVEQ_SIGN_KEY="$work/signer.key" -DVEQ_SIGN_CERT="$work/signer.pem" >/dev/null
cmake --build "$work/hello" >/dev/null

plugin="$work/hello/HelloPlugin.dll"
nm -D --defined-only "$plugin" | grep -q ' T veq_plugin_start$' || { echo "no veq_plugin_start"; exit 1; }
[ "$(nm -D --defined-only "$plugin" | grep -c ' T ')" -eq 1 ] || { echo "more than the entry is exported"; exit 1; }
objcopy --dump-section .veq.version=version.txt "$plugin" /dev/null
[ "$(cat version.txt)" = "1.0.0.0" ] || { echo "version section: $(cat version.txt)"; exit 1; }
"$work/prefix/bin/veq-sign" --verify --ca ca.pem "$plugin"
[ -x "$work/prefix/lib/veq/Service/Hosts/x64/VEQPluginHost.exe" ] || [ -x "$work/prefix/lib/veq/Service/Hosts/ARM64/VEQPluginHost.exe" ]

# An app against veq::sdk.
cmake -G Ninja -S "$source/examples/hello-app" -B "$work/app" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/app" >/dev/null
[ -x "$work/app/hello-app" ] || { echo "no hello-app"; exit 1; }
echo "example plugin and app built against the installed SDK; the plugin versioned and signed"
