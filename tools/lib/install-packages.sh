# Sourced by ./run, ./test and .ci/run.

# install_without_services PACKAGE...: installs with apt, with $root before each command. While this runs, policy-rc.d
# denies the start of services; it is removed on every exit.
install_without_services()
(
    policy=/usr/sbin/policy-rc.d
    apt=("${root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q -y)
    if [ ! -e "$policy" ]; then
        trap '"${root[@]}" rm -f "$policy"' EXIT
        trap 'exit 1' INT TERM HUP
        printf '#!/bin/sh\nexit 101\n' | "${root[@]}" tee "$policy"
        "${root[@]}" chmod 755 "$policy"
    fi
    "${apt[@]}" update && "${apt[@]}" install --no-install-recommends "$@"
)

# install_packages LIST: installs the missing Debian packages of the file LIST (separated by whitespace, # starts a
# comment) without starting their services. Prints one line if this fails.
install_packages()
{
    local list=$1 wanted=() missing=() package
    mapfile -t wanted < <(sed 's/#.*//' "$list" | tr -s '[:space:]' '\n' | sed '/^$/d')
    local installed
    # dpkg-query fails if one package is unknown, but still lists the others.
    installed=$({ dpkg-query -W -f='${db:Status-Status} ${Package}\n' "${wanted[@]}" 2>/dev/null || true; } | sed -n 's/^installed //p')
    for package in "${wanted[@]}"; do
        grep -qxF -- "$package" <<<"$installed" || missing+=("$package")
    done
    if [ ${#missing[@]} -eq 0 ]; then
        return 0
    fi

    local root=()
    if [ "$(id -u)" -ne 0 ]; then
        if ! sudo -n true 2>/dev/null; then
            echo "$0: needs root for: apt-get install ${missing[*]}" >&2
            return 1
        fi
        root=(sudo -n)
    fi
    echo "installing ${missing[*]}"
    local status=0
    install_without_services "${missing[@]}" >/dev/null || status=1
    if [ $status -ne 0 ]; then
        echo "$0: could not install ${missing[*]}; is the package mirror reachable?" >&2
    fi
    return $status
}
