// Debug levels and switches: the level table, the start-up reading from the
// environment, the commands and resync. Every case runs in a fresh process, so
// the switches and the once-only start-up begin unset and setenv stays local.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include <vobrel/debug.h>

#include "support/fake_platform.h"

namespace {

using Texts = std::vector<std::string>;

// The names of the switches that are on, in declaration order.
std::string on()
{
    const std::pair<const char *, boolean> all[] = {
        {"errors", vobrel_debug_errors},         {"events", vobrel_debug_events},
        {"voba_error", voba_debug_error},        {"voba_info", voba_debug_info},
        {"ipc_errors", ipc_debug_errors_flag},   {"ipc", vobrel_debug_ipc},
        {"core_errors", vobrel_debug_core_errors}, {"core_events", vobrel_debug_core_events},
        {"core_all", vobrel_debug_core_all}};
    std::string s;
    for (const auto &[name, value] : all)
        if (value)
            s += (s.empty() ? "" : " ") + std::string(name);
    return s;
}

const char kProc[] = "VOBREL_DEBUG_LEVEL";
const char kIpc[] = "VOBREL_DEBUG_LEVEL_MODULE_IPC";
const char kCore[] = "VOBREL_DEBUG_LEVEL_MODULE_CORE";

std::string enabled(const std::string &var, const std::string &value)
{
    return "DBG:Debugging enabled for: " + var + "=" + value + "\n";
}

std::string not_found(const std::string &var, const std::string &value)
{
    return "DBG:Debugging level '" + value + "' not found for " + var + "\n";
}

} // namespace

TEST(LevelTable, TwentyRowsInOrder)
{
    const char *names[] = {"EMERG", "EMERGENCY", "ALERT",   "CRIT",   "CRITICAL", "ERR",     "ERROR",
                           "ERRORS", "WARNING",  "WARN",    "NOTICE", "INFO",     "DEBUG",   "EVENTS",
                           "EVENT", "VERBOSE",   "NOISE",   "MAX",    "ALL"};
    const int vals[] = {0, 0, 1, 2, 2, 3, 3, 3, 4, 4, 5, 6, 7, 7, 7, 255, 255, 255, 255};
    static_assert(sizeof level_pairs / sizeof level_pairs[0] == 20);
    for (int i = 0; i < 19; ++i) {
        EXPECT_STREQ(level_pairs[i].name, names[i]);
        EXPECT_EQ(level_pairs[i].val, vals[i]) << names[i];
    }
    EXPECT_EQ(level_pairs[19].name, nullptr);
    EXPECT_EQ(level_pairs[19].val, 0);
}

TEST(StartupLevel, ProcessDebugTurnsOnErrorAndEventSwitches)
{
    setenv(kProc, "debug", 1);
    vobrel_debug_get_startup_common();
    EXPECT_EQ(on(), "errors events voba_error voba_info ipc_errors");
    EXPECT_EQ(fake::buginf_texts(), Texts{enabled(kProc, "debug")});
}

TEST(StartupLevel, WarnTurnsOnErrorSwitchesOnly)
{
    setenv(kProc, "Warn", 1);
    vobrel_debug_get_startup_common();
    EXPECT_EQ(on(), "errors voba_error ipc_errors");
}

TEST(StartupLevel, ThresholdsLieAboveCritAndAboveInfo)
{
    setenv(kProc, "INFO", 1);
    setenv(kIpc, "Critical", 1);
    setenv(kCore, "event", 1);
    vobrel_debug_get_startup_common();
    EXPECT_EQ(on(), "errors voba_error ipc_errors core_errors core_events");
    EXPECT_EQ(fake::buginf_texts(),
              (Texts{enabled(kProc, "INFO"), enabled(kIpc, "Critical"), enabled(kCore, "event")}));
}

TEST(StartupLevel, CritTurnsNothingOnButPrintsEnabled)
{
    setenv(kProc, "crit", 1);
    vobrel_debug_get_startup_common();
    EXPECT_EQ(on(), "");
    EXPECT_EQ(fake::buginf_texts(), Texts{enabled(kProc, "crit")});
}

TEST(StartupLevel, ModuleLevels)
{
    setenv(kIpc, "events", 1);
    setenv(kCore, "errors", 1);
    vobrel_debug_get_startup_common();
    EXPECT_EQ(on(), "ipc_errors ipc core_errors");
}

TEST(StartupLevel, CoreAllNeedsATableValueAboveTwoFiftyFive)
{
    setenv(kCore, "all", 1);
    vobrel_debug_get_startup_common();
    EXPECT_EQ(on(), "core_errors core_events");
}

TEST(StartupLevel, RaisedTableValueReachesCoreAll)
{
    level_pairs[18].val = 256; // "ALL"
    setenv(kCore, "ALL", 1);
    vobrel_debug_get_startup_common();
    EXPECT_EQ(on(), "core_errors core_events core_all");
}

TEST(StartupLevel, NoVariablePrintsNothing)
{
    unsetenv(kProc);
    unsetenv(kIpc);
    unsetenv(kCore);
    vobrel_debug_get_startup_common();
    EXPECT_EQ(on(), "");
    EXPECT_TRUE(fake::buginf_texts().empty());
}

TEST(StartupLevel, RunsOncePerProcessAndNeverTurnsASwitchOff)
{
    vobrel_debug_get_startup_common();
    vobrel_debug_core_all_command(1);
    setenv(kProc, "debug", 1);
    setenv(kCore, "emerg", 1);
    vobrel_debug_get_startup_common(); // the environment changed: ignored
    EXPECT_EQ(on(), "core_all");
    EXPECT_TRUE(fake::buginf_texts().empty());
}

TEST(StartupLevel, StartupKeepsSwitchesACommandTurnedOn)
{
    vobrel_debug_events_command(1);
    setenv(kProc, "warn", 1);
    vobrel_debug_get_startup_common();
    EXPECT_EQ(on(), "errors events voba_error ipc_errors");
}

TEST(StartupLevel, UnknownAndEmptyValuesPrintNotFound)
{
    setenv(kProc, "loud", 1);
    setenv(kIpc, "", 1);
    setenv(kCore, "debugx", 1);
    vobrel_debug_get_startup_common();
    EXPECT_EQ(on(), "");
    EXPECT_EQ(fake::buginf_texts(), (Texts{"DBG:Debugging level 'loud' not found for VOBREL_DEBUG_LEVEL\n",
                                           not_found(kIpc, ""), not_found(kCore, "debugx")}));
}

TEST(FlagLevel, FoundSetsTheLevelOtherwiseItIsLeftAlone)
{
    int level = -5;
    EXPECT_FALSE(vobrel_debug_get_startup_flag_level(nullptr, &level));
    setenv(kProc, "nOtIcE", 1);
    EXPECT_TRUE(vobrel_debug_get_startup_flag_level(nullptr, &level));
    EXPECT_EQ(level, 5);
    setenv(kProc, "nope", 1);
    EXPECT_FALSE(vobrel_debug_get_startup_flag_level(nullptr, &level));
    EXPECT_EQ(level, 5);
    setenv(kProc, "debug", 1);
    EXPECT_FALSE(vobrel_debug_get_startup_flag_level(nullptr, nullptr)); // no level: not-found line
    EXPECT_EQ(fake::buginf_texts(), (Texts{enabled(kProc, "nOtIcE"), not_found(kProc, "nope"), not_found(kProc, "debug")}));
}

TEST(FlagLevel, ValuesOfFiftyCharactersOrMoreMatchNoLevel)
{
    // Long names written into the table: 49 characters fit the comparison
    // buffer, 50 do not.
    static const std::string fits(49, 'L'), too_long(50, 'M');
    level_pairs[0] = {fits.c_str(), 42};
    level_pairs[1] = {too_long.c_str(), 43};
    int level = 0;
    setenv(kProc, std::string(49, 'l').c_str(), 1);
    EXPECT_TRUE(vobrel_debug_get_startup_flag_level(nullptr, &level));
    EXPECT_EQ(level, 42);
    setenv(kProc, std::string(50, 'm').c_str(), 1);
    EXPECT_FALSE(vobrel_debug_get_startup_flag_level(nullptr, &level));
    const std::string huge = "debug" + std::string(5000, 'x'); // beyond every buffer
    setenv(kProc, huge.c_str(), 1);
    EXPECT_FALSE(vobrel_debug_get_startup_flag_level(nullptr, &level));
    EXPECT_EQ(level, 42);
    EXPECT_EQ(fake::buginf_texts().back(), not_found(kProc, huge));
}

TEST(FlagLevel, ModuleNamesAreUpperCasedUpToTheVariableLimit)
{
    // 26 characters of prefix and 23 of module: 49, the longest name.
    const std::string var = "VOBREL_DEBUG_LEVEL_MODULE_" + std::string(23, 'Q');
    setenv(var.c_str(), "err", 1);
    setenv((var + "Q").c_str(), "err", 1);
    int level = 0;
    EXPECT_TRUE(vobrel_debug_get_startup_flag_level(std::string(23, 'q').c_str(), &level));
    EXPECT_EQ(level, 3);
    // One more character names no variable: neither the full name nor a
    // truncated one is read, and nothing is printed.
    level = -1;
    EXPECT_FALSE(vobrel_debug_get_startup_flag_level(std::string(24, 'q').c_str(), &level));
    EXPECT_FALSE(vobrel_debug_get_startup_flag_level(std::string(10000, 'z').c_str(), &level));
    EXPECT_EQ(level, -1);
    EXPECT_EQ(fake::buginf_texts(), Texts{enabled(var, "err")});
}

TEST(DebugCommands, SetAndClearOnlyTheirOwnSwitch)
{
    struct Cmd {
        vobrel_rc (*fn)(int);
        const char *name;
    };
    for (const Cmd &c : {Cmd{vobrel_debug_errors_command, "errors"}, Cmd{vobrel_debug_events_command, "events"},
                         Cmd{vobrel_debug_core_errors_command, "core_errors"},
                         Cmd{vobrel_debug_core_events_command, "core_events"},
                         Cmd{vobrel_debug_core_all_command, "core_all"}}) {
        EXPECT_EQ(c.fn(5), VOBREL_OK);
        EXPECT_EQ(on(), c.name);
        EXPECT_EQ(c.fn(0), VOBREL_OK);
        EXPECT_EQ(on(), "");
    }
    vobrel_debug_errors_command(-1);
    EXPECT_EQ(vobrel_debug_errors, 1); // any non-zero value stores 1
}

TEST(DebugCommands, ResyncKeepsOnSwitchesOnAndOffSwitchesOff)
{
    vobrel_resync_debug_flags();
    EXPECT_EQ(on(), "");
    vobrel_debug_errors_command(1);
    vobrel_debug_core_events_command(1);
    vobrel_debug_core_all = 7; // written directly: resync stores 1
    vobrel_resync_debug_flags();
    EXPECT_EQ(on(), "errors core_events core_all");
    EXPECT_EQ(vobrel_debug_core_all, 1);
}
