-- Package URLs the SBOM example writes, for each ecosystem, as vulnerability
-- tools match them.
package.path = "../../examples/?.lua;" .. package.path
local purl = require "purl"

describe("purl", function()
  local deb12 = purl.os_of("Debian GNU/Linux 12 (bookworm)", "x86_64")
  local rhel9 = purl.os_of("Red Hat Enterprise Linux 9.2 (Plow)", "x86_64")
  local alpine = purl.os_of("Alpine Linux v3.19", "aarch64")

  it("names the operating system", function()
    for _, c in ipairs({
      { deb12, "debian", "12", "amd64" }, { rhel9, "redhat", "9.2", "amd64" },
      { alpine, "alpine", "3.19", "arm64" }, { purl.os_of("Ubuntu 22.04.3 LTS", "i686"), "ubuntu", "22.04", "i386" },
      { purl.os_of("", ""), "unknown", "unknown", "" },
    }) do
      assert.same({ c[2], c[3], c[4] }, { c[1].id, c[1].version_id, c[1].deb_arch })
    end
  end)

  it("writes installed packages", function()
    for _, c in ipairs({
      { { type = "deb", name = "libc6", version = "2.36", release = "9+deb12u4" }, deb12,
        "pkg:deb/debian/libc6@2.36-9%2Bdeb12u4?arch=amd64&distro=debian-12" },
      { { type = "deb", name = "sensible-utils", version = "1:0.0.17+nmu1", release = "" }, deb12,
        "pkg:deb/debian/sensible-utils@1%3A0.0.17%2Bnmu1?arch=amd64&distro=debian-12" },
      { { type = "rpm", name = "bash", version = "5.1.8", release = "6.el9" }, rhel9,
        "pkg:rpm/redhat/bash@5.1.8-6.el9?arch=x86_64&distro=redhat-9.2" },
      { { type = "rpm", name = "openssl", version = "1:3.0.7", release = "24.el9" }, rhel9,
        "pkg:rpm/redhat/openssl@3.0.7-24.el9?arch=x86_64&epoch=1&distro=redhat-9.2" },
      { { type = "apk", name = "musl", version = "1.2.4", release = "r2" }, alpine,
        "pkg:apk/alpine/musl@1.2.4-r2?arch=aarch64&distro=alpine-3.19" },
    }) do
      assert.equal(c[3], purl.package(c[1], c[2]))
    end
    assert.is_nil(purl.package({ type = "msi", name = "x", version = "1", release = "" }, deb12))
  end)

  it("writes third-party libraries by ecosystem", function()
    for _, c in ipairs({
      { "org.apache.logging.log4j:log4j-core", "2.14.1", "/opt/app.jar!/BOOT-INF/lib/log4j-core-2.14.1.jar",
        "pkg:maven/org.apache.logging.log4j/log4j-core@2.14.1" },
      { "Jinja2", "3.1.2", "/usr/lib/python3/site-packages/Jinja2-3.1.2.dist-info", "pkg:pypi/jinja2@3.1.2" },
      { "zope_interface", "6.0", "/srv/venv/lib/zope_interface-6.0.egg-info", "pkg:pypi/zope-interface@6.0" },
      { "@babel/core", "7.22.5", "/srv/web/node_modules/@babel/core", "pkg:npm/%40babel/core@7.22.5" },
      { "left-pad", "1.3.0", "/srv/web/node_modules/a/node_modules/left-pad", "pkg:npm/left-pad@1.3.0" },
      { "rack", "2.2.7", "/var/lib/gems/3.1.0/specifications/rack-2.2.7.gemspec", "pkg:gem/rack@2.2.7" },
      { "monolog/monolog", "2.9.1", "/var/www/site/vendor/monolog/monolog", "pkg:composer/monolog/monolog@2.9.1" },
      { "golang.org/x/net", "v0.17.0", "/usr/local/bin/app", "pkg:golang/golang.org/x/net@v0.17.0" },
      { "libfoo", "1.2.3", "/opt/x/libfoo.so.1.2.3", "pkg:generic/libfoo@1.2.3" },
      { "commons-lang", "", "/opt/x/commons-lang.jar", "pkg:generic/commons-lang" },
    }) do
      assert.equal(c[4], purl.library({ name = c[1], version = c[2], path = c[3] }))
    end
  end)
end)
