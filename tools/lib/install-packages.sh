# Sourced by ./run, ./test and .ci/run.

# install_packages LIST: installs those Debian packages of LIST (separated by blanks or lines, # to the end of a
# line is a comment) that are missing. Starts none of their services. Says in one line why it cannot go on.
install_packages()
{
    local list=$1 wanted=() missing=() package
    mapfile -t wanted < <(sed 's/#.*//' "$list" | tr -s '[:space:]' '\n' | sed '/^$/d')
    local installed
    installed=$(dpkg-query -W -f='${db:Status-Status} ${Package}\n' "${wanted[@]}" 2>/dev/null | sed -n 's/^installed //p')
    for package in "${wanted[@]}"; do
        grep -qxF -- "$package" <<<"$installed" || missing+=("$package")
    done
    if [ ${#missing[@]} -eq 0 ]; then
        return 0
    fi

    local root=()
    if [ "$(id -u)" -ne 0 ]; then
        if ! sudo -n true 2>/dev/null; then
            echo "$0: needs root once, for: apt-get install ${missing[*]}" >&2
            return 1
        fi
        root=(sudo -n)
    fi
    echo "installing ${missing[*]}"
    local policy=/usr/sbin/policy-rc.d status=0
    if [ -e "$policy" ]; then
        policy=
    else
        printf '#!/bin/sh\nexit 101\n' | "${root[@]}" tee "$policy" >/dev/null
        "${root[@]}" chmod 755 "$policy"
    fi
    local apt=("${root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q -y)
    { "${apt[@]}" update && "${apt[@]}" install --no-install-recommends "${missing[@]}"; } >/dev/null || status=1
    [ -z "$policy" ] || "${root[@]}" rm -f "$policy"
    if [ $status -ne 0 ]; then
        echo "$0: could not install ${missing[*]}; is the package mirror reachable?" >&2
    fi
    return $status
}
