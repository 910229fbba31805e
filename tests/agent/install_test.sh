#!/bin/sh
# install_test.sh BUILD_DIRECTORY CXX: what is installed serves a program outside of the tree, found
# with CMake and with pkg-config.
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$1" --component agent --prefix "$work/prefix" >/dev/null
cat >"$work/client.cpp" <<'END'
#include "agent/owner_channel.h"
#include "agent/upload.h"
using namespace std::chrono_literals;
int main() {
    ProcMgr::Agent::OwnerChannel channel("client");
    return channel.StartApps({{"app", {}, {}}}) || channel.IsAttached() ||
                   ProcMgr::Agent::RegisterUpload("client", {}, 0ms)
               ? 1
               : 0;
}
END
cat >"$work/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.22)
project(client LANGUAGES CXX)
find_package(procmgr-agent 1.0 REQUIRED)
add_executable(client client.cpp)
target_link_libraries(client PRIVATE procmgr::agent)
END
cmake -S "$work" -B "$work/build" -DCMAKE_CXX_COMPILER="$2" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/build" >/dev/null
"$work/build/client"
echo "CMake package: works"

if ! command -v pkg-config >/dev/null; then
    echo "no pkg-config here: not tried"
    exit 0
fi
PKG_CONFIG_PATH=$(dirname "$(find "$work/prefix" -name procmgr-agent.pc)")
export PKG_CONFIG_PATH
# Several words.
# shellcheck disable=SC2046
"$2" -o "$work/client" "$work/client.cpp" $(pkg-config --cflags --libs procmgr-agent)
"$work/client"
echo "pkg-config: works"
