# shellcheck shell=bash
# The environment of every program that the project's scripts run under Wine, and what those scripts share; sourced, not run.
# Expects `root`, the project's folder.
build="${root:?}/build"
# shellcheck disable=SC2034 # for the scripts that source this file
deps="$build/deps"
export WINEPREFIX="$build/wine"
export WINEDEBUG=-all
# No .NET or HTML engine (their installers would ask), no crash dialog (with it a crash can end with exit code 0, or wait for
# a click), and nothing written into the user's desktop menus.
export WINEDLLOVERRIDES="mscoree,mshtml,winedbg.exe,winemenubuilder.exe="
# Arguments reach the program as UTF-8.
export LC_ALL=C.UTF-8
# The host's proxy variables would become the programs' default proxy.
unset http_proxy https_proxy HTTP_PROXY HTTPS_PROXY all_proxy ALL_PROXY no_proxy NO_PROXY

# start_wine SECONDS: has the prefix's wineserver run and its services started, so that programs start in hundredths of a
# second; it ends by itself SECONDS after the last program. The services are started by a program without streams of the
# caller: they keep those of the first program for life, and a pipe to the caller's reader would stay open as long. The
# desktop belongs to the display of whoever came first: for another display it is made anew, because windows would open unseen.
start_wine() {
    local display="$WINEPREFIX/.display"
    (
        flock 9
        if ! wineserver -k0 2>/dev/null; then
            wineserver -p"$1"
            wine cmd /c exit
            echo "${DISPLAY:-}" >"$display"
        elif [ -n "${DISPLAY:-}" ] && ! grep -qxF "$DISPLAY" "$display"; then
            wine taskkill /f /im explorer.exe || true # none: no window was ever made
            echo "$DISPLAY" >"$display"
        fi </dev/null >/dev/null 2>&1 9>&-
    ) 9>"$build/.wine.lock"
}

# build_targets PRESET TARGET...: configures the preset's build when that was never done, and builds the targets. One at a
# time, because a build folder takes no two builds at once.
build_targets() {
    local preset="$1"
    shift
    (
        flock 9
        cd "$root" || exit
        # A folder that was copied or moved from elsewhere still names its old place: it cannot be built in.
        if [ -f "$build/$preset/CMakeCache.txt" ] &&
            ! grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$root" "$build/$preset/CMakeCache.txt"; then
            rm -rf "${build:?}/$preset"
        fi
        [ -f "$build/$preset/build.ninja" ] || cmake --preset "$preset" 9>&- || exit
        cmake --build "$build/$preset" --target "$@" 9>&-
    ) 9>"$build/.build.lock"
}
