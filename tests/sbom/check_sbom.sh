#!/usr/bin/env bash
# The SBOM example against the official CycloneDX 1.5 schema, on a fixture
# image tree (packages and libraries whose purls are known) and on this host
# (purls of a few packages checked against dpkg-query).
#   check_sbom.sh RUNNER REPO_DIR WORK_DIR
set -euo pipefail
runner=$1 repo=$2 work=$3
mkdir -p "$work"
schema=$work/cdx/package/res/schema
if [ ! -f "$schema/bom-1.5.SNAPSHOT.schema.json" ]; then
  (cd "$work" && rm -rf cdx && mkdir cdx && cd cdx && npm pack --silent @cyclonedx/cyclonedx-library >/dev/null \
    && tar xzf ./*.tgz)
fi
validate() { /usr/bin/python3 "$repo/tests/sbom/validate_cdx.py" "$schema" "$1"; }
purls() { /usr/bin/python3 -c 'import json,sys; [print(c.get("purl","")) for c in json.load(open(sys.argv[1]))["components"]]' "$1"; }
fail=0
expect() {  # expect DOC PURL: the document holds that exact purl
  purls "$1" > "$1.purls"
  if grep -qxF -- "$2" "$1.purls"; then echo "ok   $2"; else echo "MISSING $2"; fail=1; fi
}

# A small Debian 12 image: three packages (one with an epoch, one with a '+'
# in its revision) and libraries of each ecosystem where no package owns them.
tree=$(mktemp -d /tmp/assetman-sbom.XXXXXX)
trap 'rm -rf "$tree"' EXIT
mkdir -p "$tree/etc" "$tree/var/lib/dpkg/info"
printf 'PRETTY_NAME="Debian GNU/Linux 12 (bookworm)"\nID=debian\nVERSION_ID="12"\n' > "$tree/etc/os-release"
echo image1 > "$tree/etc/hostname"
# The image's architecture is read from its programs.
mkdir -p "$tree/bin" && cp /bin/sh "$tree/bin/sh"
cat > "$tree/var/lib/dpkg/status" <<'DEB'
Package: libc6
Status: install ok installed
Architecture: amd64
Version: 2.36-9+deb12u4
Maintainer: GNU Libc Maintainers <debian-glibc@lists.debian.org>
Description: GNU C Library: Shared libraries

Package: perl-base
Status: install ok installed
Architecture: amd64
Version: 5.36.0-7+deb12u1
Maintainer: Niko Tyni <ntyni@debian.org>
Description: minimal Perl system

Package: sensible-utils
Status: install ok installed
Architecture: all
Version: 1:0.0.17+nmu1
Maintainer: Anibal Monsalve Salazar <anibal@debian.org>
Description: Utilities for sensible alternative selection
DEB
for p in libc6 perl-base sensible-utils; do : > "$tree/var/lib/dpkg/info/$p.list"; done

mkdir -p "$tree/opt/app/META-INF/maven/org.apache.logging.log4j/log4j-core" \
  "$tree/opt/py/lib/python3.11/site-packages/Jinja2-3.1.2.dist-info" \
  "$tree/srv/web/node_modules/@babel/core" "$tree/srv/web/node_modules/left-pad" \
  "$tree/var/lib/gems/3.1.0/specifications" "$tree/var/www/site/vendor/composer"
printf 'groupId=org.apache.logging.log4j\nartifactId=log4j-core\nversion=2.14.1\n' \
  > "$tree/opt/app/META-INF/maven/org.apache.logging.log4j/log4j-core/pom.properties"
(cd "$tree/opt/app" && zip -qr log4j-core-2.14.1.jar META-INF && rm -rf META-INF)
printf 'Metadata-Version: 2.1\nName: Jinja2\nVersion: 3.1.2\n' \
  > "$tree/opt/py/lib/python3.11/site-packages/Jinja2-3.1.2.dist-info/METADATA"
echo '{"name": "@babel/core", "version": "7.22.5"}' > "$tree/srv/web/node_modules/@babel/core/package.json"
echo '{"name": "left-pad", "version": "1.3.0"}' > "$tree/srv/web/node_modules/left-pad/package.json"
printf 'Gem::Specification.new do |s|\n  s.name = "rack"\n  s.version = "2.2.7"\nend\n' \
  > "$tree/var/lib/gems/3.1.0/specifications/rack-2.2.7.gemspec"
echo '{"packages": [{"name": "monolog/monolog", "version": "2.9.1", "install-path": "../monolog/monolog"}]}' \
  > "$tree/var/www/site/vendor/composer/installed.json"
mkdir -p "$tree/var/www/site/vendor/monolog/monolog"

ASSETMAN_HOST_ROOT=$tree "$runner" "$repo/examples/sbom.lua" > "$work/image.cdx.json"
validate "$work/image.cdx.json"
for p in 'pkg:deb/debian/libc6@2.36-9%2Bdeb12u4?arch=amd64&distro=debian-12' \
         'pkg:maven/org.apache.logging.log4j/log4j-core@2.14.1' \
         'pkg:pypi/jinja2@3.1.2' \
         'pkg:npm/%40babel/core@7.22.5' 'pkg:npm/left-pad@1.3.0' \
         'pkg:gem/rack@2.2.7' \
         'pkg:composer/monolog/monolog@2.9.1'; do
  expect "$work/image.cdx.json" "$p"
done
# The package record carries no architecture: an "all" package gets the
# host's, but its epoch and revision are encoded as purl wants them.
grep -q '^pkg:deb/debian/sensible-utils@1%3A0.0.17%2Bnmu1?' "$work/image.cdx.json.purls" || { echo "MISSING epoch"; fail=1; }
/usr/bin/python3 - "$work/image.cdx.json" <<'PY' || fail=1
import json, sys
d = json.load(open(sys.argv[1]))
os_c = [c for c in d["components"] if c["type"] == "operating-system"]
assert len(os_c) == 1 and os_c[0]["name"] == "debian" and os_c[0]["version"] == "12", os_c
assert d["metadata"]["component"]["name"] == "image1", d["metadata"]["component"]
print("ok   operating system and host subject")
PY

# This host: the document validates and a few packages carry the purl that
# dpkg-query's own version and architecture give.
"$runner" "$repo/examples/sbom.lua" > "$work/host.cdx.json"
validate "$work/host.cdx.json"
arch=$(dpkg --print-architecture)
. /etc/os-release
for p in bash libc6 dpkg; do
  v=$(dpkg-query -W -f '${Version}' "$p")
  enc=$(/usr/bin/python3 -c 'import sys, urllib.parse; print(urllib.parse.quote(sys.argv[1], safe=".-_~"))' "$v")
  expect "$work/host.cdx.json" "pkg:deb/$ID/$p@$enc?arch=$arch&distro=$ID-$VERSION_ID"
done
exit $fail
