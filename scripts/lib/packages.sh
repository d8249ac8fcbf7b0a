# Installs the Debian packages that are missing (apt-get; sudo when not root).
# Usage: ensure_packages NAME...
ensure_packages() {
    local missing=() p
    for p in "$@"; do
        if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
            missing+=("$p")
        fi
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "Installing missing packages: ${missing[*]}"
    local sudo=""
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || { echo "Need root or sudo to install: ${missing[*]}" >&2; return 1; }
        sudo="sudo"
    fi
    $sudo apt-get update -qq || return 1
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" || return 1
}

# What building and testing needs.
BUILD_PACKAGES=(
    build-essential cmake pkg-config
    libssl-dev openssl
    googletest libgtest-dev libgmock-dev libbenchmark-dev
    qt6-base-dev qt6-base-dev-tools qt6-svg-dev qt6-tools-dev qt6-tools-dev-tools
    qt6-l10n-tools qt6-qpa-plugins qt6-image-formats-plugins libqt6svg6
    libgl-dev libegl-dev libxkbcommon-dev
    dbus dbus-daemon  # the private buses of the desktop tests
    desktop-file-utils appstream dpkg-dev  # the validators of the installed entries
)

# What the headless demo needs on top.
DEMO_PACKAGES=(
    xvfb xauth trayer x11-apps xdotool imagemagick fonts-dejavu-core
)

# What scripts/bench needs on top: the tray host under Xvfb, xdotool to find
# it, XCB for the program that times the icon's docking, taskset to pin.
BENCH_PACKAGES=(
    xvfb xauth trayer xdotool libxcb1-dev util-linux
)

# What scripts/package needs on top: dpkg-shlibdeps and dpkg-deb, and file,
# with which CPack finds the programs whose libraries make the dependencies.
PACKAGE_PACKAGES=(
    dpkg-dev file binutils
)
