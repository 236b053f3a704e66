# shellcheck shell=bash
# The environment of the programs that the project's scripts run under Wine, and functions that the scripts share. Sourced, not run.
# Expects `root`, the project's folder.
build="${root:?}/build"
# shellcheck disable=SC2034 # for the scripts that source this file
deps="$build/deps"
export WINEPREFIX="$build/wine"
export WINEDEBUG=-all
# No .NET and no HTML engine: their installers would ask. No crash dialog: with it a crash can end with exit code 0 or wait for a
# click. No entries in the user's desktop menus.
export WINEDLLOVERRIDES="mscoree,mshtml,winedbg.exe,winemenubuilder.exe="
# Arguments reach the program as UTF-8.
export LC_ALL=C.UTF-8
# The host's proxy variables would become the programs' default proxy.
unset http_proxy https_proxy HTTP_PROXY HTTPS_PROXY all_proxy ALL_PROXY no_proxy NO_PROXY

# start_wine SECONDS: starts the prefix's wineserver and its services, so that programs start in hundredths of a second. The server
# ends SECONDS after the last program. The services keep the streams of the first program as long as they live; that program gets
# none of the caller's, because a pipe to a reader would stay open as long. The desktop belongs to the display of the first program:
# for another display it is started again, because windows would open on the old one.
start_wine() {
    local display="$WINEPREFIX/.display"
    (
        flock 9
        if ! wineserver -k0 2>/dev/null; then
            wineserver -p"$1"
            wine cmd /c exit
            echo "${DISPLAY:-}" >"$display"
        elif [ -n "${DISPLAY:-}" ] && ! grep -qxF "$DISPLAY" "$display"; then
            wine taskkill /f /im explorer.exe || true # it fails when no window was ever made
            echo "$DISPLAY" >"$display"
        fi </dev/null >/dev/null 2>&1 9>&-
    ) 9>"$build/.wine.lock"
}

# link_database PRESET: links compile_commands.json where editors look for it. It must name each source, which that of the unity build
# does not: that of the debug preset stands for it. No build fails for it.
link_database() {
    local folder="build/$1"
    if [ "$1" = mingw ]; then
        case "$(readlink compile_commands.json)" in
            "" | build/mingw/* | build/mingw-debug/*) folder=build/mingw-debug ;;
            *) return 0 ;;
        esac
        if [ ! "$folder/compile_commands.json" -nt build/mingw/build.ninja ]; then
            { cmake --preset mingw-debug >/dev/null 2>&1 && touch "$folder/compile_commands.json"; } || return 0
        fi
    fi
    ln -sfn "$folder/compile_commands.json" compile_commands.json
}

# build_targets PRESET TARGET...: configures the preset's build folder if it is new or the presets have changed, and builds the targets.
# A lock keeps a second build out of the folder.
build_targets() {
    local preset="$1"
    shift
    (
        flock 9
        cd "$root" || exit
        # A build folder that was copied or moved names its old place: it cannot be used.
        if [ -f "$build/$preset/CMakeCache.txt" ] &&
            ! grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$root" "$build/$preset/CMakeCache.txt"; then
            rm -rf "${build:?}/$preset"
        fi
        [ "$build/$preset/build.ninja" -nt CMakePresets.json ] || cmake --preset "$preset" 9>&- || exit
        link_database "$preset" 9>&-
        cmake --build "$build/$preset" --target "$@" 9>&-
    ) 9>"$build/.build.lock"
}

# prepare_program TARGET PROGRAM: what must be there before a program of build/ runs: the machine's set-up, the program itself, which is
# built when a source is newer than its last build, and Wine.
prepare_program() {
    local target="$1" program="$2" stamp
    stamp="${program##*/}"
    stamp="$build/.${stamp%.exe}-built"
    "$root/tools/setup" || return
    if [ ! -f "$program" ] || [ ! -f "$stamp" ] ||
        [ -n "$(find "$root"/{VoUtils,app,cmake,CMakeLists.txt,CMakePresets.json} "$deps/curl/.complete" -newer "$stamp" -print -quit)" ]; then
        # The stamp has the time before the build: the next call builds what is edited meanwhile.
        touch "$stamp.$$"
        build_targets mingw "$target" || { rm -f "$stamp.$$"; return 1; }
        mv "$stamp.$$" "$stamp"
    fi
    start_wine 60
}
