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

struct Switches {
    int errors, events, voba_error, voba_info, ipc_errors, ipc, core_errors, core_events, core_all;
    bool operator==(const Switches &) const = default;
};

Switches now()
{
    return {vobrel_debug_errors,   vobrel_debug_events,      voba_debug_error,
            voba_debug_info,       ipc_debug_errors_flag,    vobrel_debug_ipc,
            vobrel_debug_core_errors, vobrel_debug_core_events, vobrel_debug_core_all};
}

void PrintTo(const Switches &s, std::ostream *os)
{
    *os << "{errors " << s.errors << ", events " << s.events << ", voba_error " << s.voba_error << ", voba_info "
        << s.voba_info << ", ipc_errors " << s.ipc_errors << ", ipc " << s.ipc << ", core_errors " << s.core_errors
        << ", core_events " << s.core_events << ", core_all " << s.core_all << "}";
}

const Switches kNone{};

std::string enabled(const std::string &var, const std::string &value)
{
    return "DBG:Debugging enabled for: " + var + "=" + value + "\n";
}

std::string not_found(const std::string &var, const std::string &value)
{
    return "DBG:Debugging level '" + value + "' not found for " + var + "\n";
}

const char kProc[] = "VOBREL_DEBUG_LEVEL";
const char kIpc[] = "VOBREL_DEBUG_LEVEL_MODULE_IPC";
const char kCore[] = "VOBREL_DEBUG_LEVEL_MODULE_CORE";

} // namespace

TEST(LevelTable, HasTwentyRowsInOrderEndingWithTheTerminator)
{
    const std::vector<std::pair<std::string, int>> want = {
        {"EMERG", 0},  {"EMERGENCY", 0}, {"ALERT", 1},   {"CRIT", 2},     {"CRITICAL", 2},  {"ERR", 3},
        {"ERROR", 3},  {"ERRORS", 3},    {"WARNING", 4}, {"WARN", 4},     {"NOTICE", 5},    {"INFO", 6},
        {"DEBUG", 7},  {"EVENTS", 7},    {"EVENT", 7},   {"VERBOSE", 255}, {"NOISE", 255}, {"MAX", 255},
        {"ALL", 255}};
    static_assert(sizeof level_pairs / sizeof level_pairs[0] == 20);
    for (size_t i = 0; i < want.size(); ++i) {
        ASSERT_NE(level_pairs[i].name, nullptr) << i;
        EXPECT_EQ(level_pairs[i].name, want[i].first) << i;
        EXPECT_EQ(level_pairs[i].val, want[i].second) << i;
    }
    EXPECT_EQ(level_pairs[19].name, nullptr);
    EXPECT_EQ(level_pairs[19].val, 0);
}

TEST(StartupLevel, ProcessDebugTurnsOnErrorAndEventSwitches)
{
    setenv(kProc, "debug", 1);
    vobrel_debug_get_startup_common();
    Switches want = kNone;
    want.errors = want.events = want.voba_error = want.voba_info = want.ipc_errors = 1;
    EXPECT_EQ(now(), want);
    EXPECT_EQ(fake::buginf_texts(), Texts{enabled(kProc, "debug")});
}

TEST(StartupLevel, WarnTurnsOnErrorSwitchesOnly)
{
    setenv(kProc, "Warn", 1);
    vobrel_debug_get_startup_common();
    Switches want = kNone;
    want.errors = want.voba_error = want.ipc_errors = 1;
    EXPECT_EQ(now(), want);
    EXPECT_EQ(fake::buginf_texts(), Texts{enabled(kProc, "Warn")});
}

TEST(StartupLevel, LevelsBelowErrTurnNothingOnButStillPrintEnabled)
{
    setenv(kProc, "crit", 1);
    setenv(kIpc, "ALERT", 1);
    setenv(kCore, "emergency", 1);
    vobrel_debug_get_startup_common();
    EXPECT_EQ(now(), kNone);
    EXPECT_EQ(fake::buginf_texts(),
              (Texts{enabled(kProc, "crit"), enabled(kIpc, "ALERT"), enabled(kCore, "emergency")}));
}

TEST(StartupLevel, ThresholdsSitBetweenCritAndErrAndBetweenInfoAndDebug)
{
    setenv(kProc, "INFO", 1);
    setenv(kCore, "EVENT", 1);
    setenv(kIpc, "Critical", 1);
    vobrel_debug_get_startup_common();
    Switches want = kNone;
    want.errors = want.voba_error = want.ipc_errors = 1;
    want.core_errors = want.core_events = 1;
    EXPECT_EQ(now(), want);
}

TEST(StartupLevel, CoreErrLevelTurnsOnCoreErrorsOnly)
{
    setenv(kCore, "errors", 1);
    setenv(kIpc, "info", 1);
    vobrel_debug_get_startup_common();
    Switches want = kNone;
    want.core_errors = want.ipc_errors = 1;
    EXPECT_EQ(now(), want);
}

TEST(StartupLevel, CoreAllStopsShortOfCoreAllUntilTheTableIsRaised)
{
    setenv(kCore, "all", 1);
    vobrel_debug_get_startup_common();
    Switches want = kNone;
    want.core_errors = want.core_events = 1;
    EXPECT_EQ(now(), want);
    EXPECT_EQ(fake::buginf_texts(), Texts{enabled(kCore, "all")});
}

TEST(StartupLevel, WritingAboveTwoFiftyFiveIntoTheTableReachesCoreAll)
{
    level_pairs[18].val = 256; // "ALL"
    setenv(kCore, "ALL", 1);
    vobrel_debug_get_startup_common();
    EXPECT_EQ(vobrel_debug_core_all, 1);
    EXPECT_EQ(vobrel_debug_core_events, 1);
    EXPECT_EQ(vobrel_debug_core_errors, 1);
}

TEST(StartupLevel, IpcModuleLevels)
{
    setenv(kIpc, "error", 1);
    vobrel_debug_get_startup_common();
    Switches want = kNone;
    want.ipc_errors = 1;
    EXPECT_EQ(now(), want);
}

TEST(StartupLevel, IpcEventsAndProcessErrors)
{
    setenv(kProc, "ERR", 1);
    setenv(kIpc, "events", 1);
    vobrel_debug_get_startup_common();
    Switches want = kNone;
    want.errors = want.voba_error = want.ipc_errors = want.ipc = 1;
    EXPECT_EQ(now(), want);
    EXPECT_EQ(fake::buginf_texts(), (Texts{enabled(kProc, "ERR"), enabled(kIpc, "events")}));
}

TEST(StartupLevel, NoVariablePrintsNothingAndChangesNothing)
{
    unsetenv(kProc);
    unsetenv(kIpc);
    unsetenv(kCore);
    vobrel_debug_get_startup_common();
    EXPECT_EQ(now(), kNone);
    EXPECT_TRUE(fake::buginf_texts().empty());
}

TEST(StartupLevel, RunsOncePerProcess)
{
    vobrel_debug_get_startup_common();
    setenv(kProc, "debug", 1);
    setenv(kCore, "debug", 1);
    vobrel_debug_get_startup_common();
    EXPECT_EQ(now(), kNone);
    EXPECT_TRUE(fake::buginf_texts().empty());
}

TEST(StartupLevel, NeverTurnsASwitchOff)
{
    vobrel_debug_events_command(1);
    vobrel_debug_core_all_command(1);
    setenv(kProc, "warn", 1);
    setenv(kCore, "emerg", 1);
    vobrel_debug_get_startup_common();
    EXPECT_EQ(vobrel_debug_events, 1);
    EXPECT_EQ(vobrel_debug_core_all, 1);
    EXPECT_EQ(vobrel_debug_errors, 1);
}

TEST(StartupLevel, UnknownAndEmptyValuesPrintNotFoundAndTurnNothingOn)
{
    setenv(kProc, "loud", 1);
    setenv(kIpc, "", 1);
    setenv(kCore, "debugx", 1);
    vobrel_debug_get_startup_common();
    EXPECT_EQ(now(), kNone);
    EXPECT_EQ(fake::buginf_texts(), (Texts{"DBG:Debugging level 'loud' not found for VOBREL_DEBUG_LEVEL\n",
                                           not_found(kIpc, ""), not_found(kCore, "debugx")}));
}

TEST(FlagLevel, FoundSetsLevelMissingLeavesItAlone)
{
    int level = -5;
    EXPECT_FALSE(vobrel_debug_get_startup_flag_level(nullptr, &level));
    EXPECT_EQ(level, -5);
    setenv(kProc, "nOtIcE", 1);
    EXPECT_TRUE(vobrel_debug_get_startup_flag_level(nullptr, &level));
    EXPECT_EQ(level, 5);
    setenv(kProc, "nope", 1);
    EXPECT_FALSE(vobrel_debug_get_startup_flag_level(nullptr, &level));
    EXPECT_EQ(level, 5);
    // Keeps no state: the same answer again.
    setenv(kProc, "info", 1);
    EXPECT_TRUE(vobrel_debug_get_startup_flag_level(nullptr, &level));
    EXPECT_TRUE(vobrel_debug_get_startup_flag_level(nullptr, &level));
    EXPECT_EQ(level, 6);
}

TEST(FlagLevel, NullLevelWithTheVariableSetPrintsNotFound)
{
    setenv(kProc, "debug", 1);
    EXPECT_FALSE(vobrel_debug_get_startup_flag_level(nullptr, nullptr));
    EXPECT_EQ(fake::buginf_texts(), Texts{not_found(kProc, "debug")});
}

TEST(FlagLevel, ModuleNameIsUpperCased)
{
    setenv("VOBREL_DEBUG_LEVEL_MODULE_MY_MOD", "max", 1);
    int level = 0;
    EXPECT_TRUE(vobrel_debug_get_startup_flag_level("My_mod", &level));
    EXPECT_EQ(level, 255);
    EXPECT_EQ(fake::buginf_texts(), Texts{enabled("VOBREL_DEBUG_LEVEL_MODULE_MY_MOD", "max")});
}

TEST(FlagLevel, ValuesOfFiftyCharactersOrMoreMatchNoLevel)
{
    // Long level names written into the table: 49 characters fit the
    // comparison buffer, 50 do not.
    static const std::string fits(49, 'L');
    static const std::string too_long(50, 'M');
    level_pairs[0].name = fits.c_str();
    level_pairs[0].val = 42;
    level_pairs[1].name = too_long.c_str();
    level_pairs[1].val = 43;

    int level = 0;
    setenv(kProc, std::string(49, 'l').c_str(), 1);
    EXPECT_TRUE(vobrel_debug_get_startup_flag_level(nullptr, &level));
    EXPECT_EQ(level, 42);
    setenv(kProc, std::string(50, 'm').c_str(), 1);
    EXPECT_FALSE(vobrel_debug_get_startup_flag_level(nullptr, &level));
    EXPECT_EQ(level, 42);

    // Far beyond every buffer, including the one-line debug buffer.
    const std::string huge = "debug" + std::string(5000, 'x');
    setenv(kProc, huge.c_str(), 1);
    EXPECT_FALSE(vobrel_debug_get_startup_flag_level(nullptr, &level));
    EXPECT_EQ(fake::buginf_texts().back(), not_found(kProc, huge));
}

TEST(FlagLevel, ModuleNameUpToTheVariableLimitIsRead)
{
    // 26 characters of prefix + 23 = 49, the longest variable name.
    const std::string module(23, 'q');
    const std::string var = "VOBREL_DEBUG_LEVEL_MODULE_" + std::string(23, 'Q');
    setenv(var.c_str(), "err", 1);
    int level = 0;
    EXPECT_TRUE(vobrel_debug_get_startup_flag_level(module.c_str(), &level));
    EXPECT_EQ(level, 3);
    EXPECT_EQ(fake::buginf_texts(), Texts{enabled(var, "err")});
}

TEST(FlagLevel, OverLongModuleNameNamesNoVariable)
{
    // Neither the full name nor a truncated one is read.
    const std::string module(24, 'q');
    setenv(("VOBREL_DEBUG_LEVEL_MODULE_" + std::string(24, 'Q')).c_str(), "err", 1);
    setenv(("VOBREL_DEBUG_LEVEL_MODULE_" + std::string(23, 'Q')).c_str(), "err", 1);
    int level = -1;
    EXPECT_FALSE(vobrel_debug_get_startup_flag_level(module.c_str(), &level));
    EXPECT_FALSE(vobrel_debug_get_startup_flag_level(std::string(10000, 'z').c_str(), &level));
    EXPECT_EQ(level, -1);
    EXPECT_TRUE(fake::buginf_texts().empty());
}

TEST(DebugCommands, SetAndClearTheirSwitches)
{
    struct Cmd {
        vobrel_rc (*fn)(int);
        boolean *sw;
    };
    for (const Cmd &c : {Cmd{vobrel_debug_errors_command, &vobrel_debug_errors},
                         Cmd{vobrel_debug_events_command, &vobrel_debug_events},
                         Cmd{vobrel_debug_core_errors_command, &vobrel_debug_core_errors},
                         Cmd{vobrel_debug_core_events_command, &vobrel_debug_core_events},
                         Cmd{vobrel_debug_core_all_command, &vobrel_debug_core_all}}) {
        Switches before = now();
        EXPECT_EQ(c.fn(5), VOBREL_OK);
        EXPECT_EQ(*c.sw, 1); // any non-zero value stores 1
        EXPECT_EQ(c.fn(-1), VOBREL_OK);
        EXPECT_EQ(*c.sw, 1);
        EXPECT_EQ(c.fn(0), VOBREL_OK);
        EXPECT_EQ(*c.sw, 0);
        EXPECT_EQ(now(), before); // no other switch moved
    }
    EXPECT_TRUE(fake::buginf_texts().empty());
}

TEST(DebugCommands, ResyncKeepsOnSwitchesOnAndOffSwitchesOff)
{
    vobrel_resync_debug_flags();
    EXPECT_EQ(now(), kNone);

    vobrel_debug_errors_command(1);
    vobrel_debug_core_events_command(1);
    vobrel_debug_ipc = 1; // no command: left to its owner
    Switches before = now();
    vobrel_resync_debug_flags();
    EXPECT_EQ(now(), before);

    // A switch written directly with a value other than 1 is normalised.
    vobrel_debug_core_all = 7;
    vobrel_resync_debug_flags();
    EXPECT_EQ(vobrel_debug_core_all, 1);
}
