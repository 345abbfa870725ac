# Shared by the scripts in this folder; sourced, not run. Expects $root.

stage() { printf '\n==== %s\n' "$*"; }

# Installs the Debian packages (scripts/setup.sh) unless SKIP_SETUP=1.
stage_setup() {
  if [[ ${SKIP_SETUP:-0} == 1 ]]; then
    return
  fi
  stage "setup: Debian packages"
  bash "$root/scripts/setup.sh"
}
