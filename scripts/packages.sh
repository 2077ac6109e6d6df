# Installs the Debian packages the build needs, when some are missing.
# Sourced by the other scripts; takes the package names as arguments.
ensure_packages() {
    local missing=()
    local package
    for package in "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' \
            || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "Installing: ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}"
}

build_packages=(g++ cmake ninja-build)
# The desktop program and its tests on a virtual display: wxWidgets with the
# GTK headers (its controls are made compact through GTK), Xvfb, xdotool to
# click and type, ImageMagick's import for screenshots.
test_packages=(libgtest-dev libgmock-dev proj-bin gpsbabel gpsd gpsd-clients
    libwxgtk3.2-dev libgtk-3-dev xvfb xauth xdotool imagemagick)
