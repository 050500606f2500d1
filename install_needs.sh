# Sourced by run.sh and test.sh: install_needs PACKAGE... gets the Debian packages that are missing.
install_needs() {
    local missing=() package
    for package in "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
            missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "installing ${missing[*]}"
    local sudo=
    if [ "$(id -u)" -ne 0 ]; then
        sudo=sudo
    fi
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends \
        "${missing[@]}" >/dev/null
}
