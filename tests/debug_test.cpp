// Debug levels and switches: the start-up reading from the environment, the
// level lookup, the commands and resync. Every case runs in a fresh process,
// so the switches and the once-only start-up begin unset and setenv stays local.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <string>
#include <vector>

#include <vobrel/debug.h>

#include "support/fake_platform.h"

namespace {

using Texts = std::vector<std::string>;
const char kProc[] = "VOBREL_DEBUG_LEVEL";
const char kIpc[] = "VOBREL_DEBUG_LEVEL_MODULE_IPC";
const char kCore[] = "VOBREL_DEBUG_LEVEL_MODULE_CORE";

std::string enabled(std::string var, std::string v) { return "DBG:Debugging enabled for: " + var + "=" + v + "\n"; }
std::string not_found(std::string var, std::string v)
{
    return "DBG:Debugging level '" + v + "' not found for " + var + "\n";
}

// The names of the switches that are on, in declaration order.
std::string on()
{
    std::string s;
    for (auto [name, value] : {std::pair{"errors", vobrel_debug_errors}, {"events", vobrel_debug_events},
                               {"voba_error", voba_debug_error}, {"voba_info", voba_debug_info},
                               {"ipc_errors", ipc_debug_errors_flag}, {"ipc", vobrel_debug_ipc},
                               {"core_errors", vobrel_debug_core_errors}, {"core_events", vobrel_debug_core_events},
                               {"core_all", vobrel_debug_core_all}}) {
        EXPECT_LE(value, 1) << name;
        if (value)
            s += (s.empty() ? "" : " ") + std::string(name);
    }
    return s;
}

// The three variables (null: unset), the worth of the ALL row, whether a
// command turned events on before, and the switches on after start-up.
struct Startup { const char *proc, *ipc, *core; int all; bool events; const char *on; };
void PrintTo(const Startup &c, std::ostream *os)
{
    *os << (c.proc ? c.proc : "-") << '/' << (c.ipc ? c.ipc : "-") << '/' << (c.core ? c.core : "-") << '/' << c.all;
}
class DebugStartup : public ::testing::TestWithParam<Startup> {};

} // namespace

TEST_P(DebugStartup, LevelsTurnSwitchesOnOncePerProcess)
{
    const Startup &c = GetParam();
    Texts want;
    for (auto [var, value] : {std::pair{kProc, c.proc}, {kIpc, c.ipc}, {kCore, c.core}}) {
        value ? setenv(var, value, 1) : unsetenv(var);
        if (value)
            want.push_back(enabled(var, value));
    }
    level_pairs[18].val = c.all;
    vobrel_debug_events_command(c.events);
    vobrel_debug_get_startup_common();
    setenv(kProc, "all", 1);
    setenv(kCore, "emerg", 1);
    vobrel_debug_get_startup_common(); // a second call reads nothing
    EXPECT_EQ(on(), c.on);
    EXPECT_EQ(fake::buginf_texts(), want);
}

// Thresholds: above CRIT (2) and above INFO (6); core all above 255.
INSTANTIATE_TEST_SUITE_P(Levels, DebugStartup, ::testing::Values(
    Startup{"debug", "info", "errors", 255, false, "errors events voba_error voba_info ipc_errors core_errors"},
    Startup{"Err", nullptr, nullptr, 255, true, "errors events voba_error ipc_errors"},
    Startup{"INFO", "Critical", "event", 255, false, "errors voba_error ipc_errors core_errors core_events"},
    Startup{"crit", "ERROR", "info", 255, false, "ipc_errors core_errors"},
    Startup{nullptr, "events", "all", 255, false, "ipc_errors ipc core_errors core_events"},
    Startup{nullptr, nullptr, "ALL", 256, false, "core_errors core_events core_all"},
    Startup{nullptr, "crit", nullptr, 255, false, ""}));

TEST(DebugLevel, LookupIsCaseBlindBoundedAndFailureLeavesTheLevelAlone)
{
    int rows = 0, level = 0, prev = 0;
    for (const vobrel_name_val_pair_t *p = level_pairs; p->name; ++p, ++rows, prev = level) {
        std::string lower = p->name;
        for (char &ch : lower)
            ch = static_cast<char>(tolower(ch));
        setenv(kProc, lower.c_str(), 1);
        EXPECT_TRUE(vobrel_debug_get_startup_flag_level(nullptr, &level) && level == p->val && level >= prev) << lower;
    }
    EXPECT_TRUE(rows == VOBREL_LEVEL_PAIRS_ROWS - 1 && level == 255);
    fake::clear_recordings();

    static const std::string fits(49, 'L'), too_long(50, 'M'); // written into the table: 49 characters fit
    level_pairs[0] = {fits.c_str(), 42};
    level_pairs[1] = {too_long.c_str(), 43};
    level = -5;
    unsetenv(kProc);
    EXPECT_FALSE(vobrel_debug_get_startup_flag_level(nullptr, &level)); // prints nothing
    Texts want;
    const Texts values = {"loud", "", "debugx", std::string(50, 'm'), "debug" + std::string(5000, 'x'), "debug"};
    for (const std::string &v : values) {
        setenv(kProc, v.c_str(), 1);
        EXPECT_FALSE(vobrel_debug_get_startup_flag_level(nullptr, v == "debug" ? nullptr : &level)) << v.size();
        want.push_back(not_found(kProc, v)); // ("debug" found, but nowhere to put it)
    }
    setenv(kProc, std::string(49, 'l').c_str(), 1);
    EXPECT_TRUE(level == -5 && vobrel_debug_get_startup_flag_level(nullptr, &level) && level == 42);

    // A module name may make the variable name 49 characters long; with one
    // more it names no variable: nothing read, nothing printed.
    const std::string var = "VOBREL_DEBUG_LEVEL_MODULE_" + std::string(23, 'Q');
    setenv(var.c_str(), "err", 1);
    setenv((var + "Q").c_str(), "err", 1);
    EXPECT_TRUE(vobrel_debug_get_startup_flag_level(std::string(23, 'q').c_str(), &level) && level == 3);
    EXPECT_FALSE(vobrel_debug_get_startup_flag_level(std::string(24, 'q').c_str(), &level) ||
                 vobrel_debug_get_startup_flag_level(std::string(10000, 'z').c_str(), &level) || level != 3);
    want.insert(want.end(), {enabled(kProc, std::string(49, 'l')), enabled(var, "err")});
    EXPECT_EQ(fake::buginf_texts(), want);
}

TEST(DebugCommands, SetAndClearOnlyTheirOwnSwitchAndResyncKeepsOnesOn)
{
    const std::pair<vobrel_rc (*)(int), const char *> cmds[] = {
        {vobrel_debug_errors_command, "errors"}, {vobrel_debug_events_command, "events"},
        {vobrel_debug_core_errors_command, "core_errors"}, {vobrel_debug_core_events_command, "core_events"},
        {vobrel_debug_core_all_command, "core_all"}};
    for (auto [cmd, name] : cmds) {
        EXPECT_TRUE(cmd(-5) == VOBREL_OK && on() == name);
        EXPECT_TRUE(cmd(0) == VOBREL_OK && on().empty()) << name;
    }
    vobrel_resync_debug_flags();
    EXPECT_EQ(on(), "");
    vobrel_debug_errors_command(1);
    vobrel_debug_core_events_command(1);
    vobrel_debug_core_all = 7; // written directly: resync stores 1
    vobrel_resync_debug_flags();
    EXPECT_EQ(on(), "errors core_events core_all");
}
