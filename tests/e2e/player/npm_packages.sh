# Sourced by the end-to-end scripts of this folder: installs the npm packages pinned by package-lock.json into
# node_modules/ when the lock file changed since the last install. Several tests may start together: one
# installs, the others wait for it. Needs a function `fail MESSAGE` in the script that sources it.
install_npm_packages() {
  local here=$1
  command -v node >/dev/null || fail "node is not installed: run scripts/install-deps.sh"
  command -v npm >/dev/null || fail "npm is not installed: the end-to-end tests need it for dash.js, hls.js, mp4box.js and playwright-core"
  (
    flock -w 240 9 || fail "timed out waiting for another npm install in $here"
    local stamp="$here/node_modules/.installed-lock-sha256" want
    want=$(sha256sum "$here/package-lock.json" | cut -d' ' -f1)
    if [ "$(cat "$stamp" 2>/dev/null)" != "$want" ] || [ ! -f "$here/node_modules/playwright-core/package.json" ] ||
       [ ! -d "$here/node_modules/dashjs/dist" ] || [ ! -d "$here/node_modules/mp4box/dist" ] ||
       [ ! -d "$here/node_modules/shaka-player/dist" ] || [ ! -d "$here/node_modules/hls.js/dist" ]; then
      echo "npm ci in $here"
      (cd "$here" && PLAYWRIGHT_SKIP_BROWSER_DOWNLOAD=1 timeout 200 npm ci --no-audit --no-fund) ||
        fail "npm ci failed in $here"
      echo "$want" >"$stamp"
    fi
  ) 9>"$here/.npm-install.lock"
}
