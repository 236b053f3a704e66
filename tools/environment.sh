# The environment of every program that the project's scripts run under Wine; sourced, not run.
# Expects `root`, the project's folder.
build="$root/build"
deps="$build/deps"
export WINEPREFIX="$build/wine"
export WINEDEBUG=-all
# No .NET or HTML engine (their installers would ask), and no crash dialog: with it a crash can end with exit code 0, or wait
# for a click.
export WINEDLLOVERRIDES="mscoree,mshtml,winedbg.exe="
# Arguments reach the program as UTF-8.
export LC_ALL=C.UTF-8
# The host's proxy variables would become the programs' default proxy.
unset http_proxy https_proxy HTTP_PROXY HTTPS_PROXY all_proxy ALL_PROXY no_proxy NO_PROXY
