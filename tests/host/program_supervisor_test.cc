// ProgramSupervisor against fake programs and a clock the test moves: the
// back-off and its reset, the random part, the policies, how an end is
// reported, restarts that never wait, and restarts that meet a reload.
#include <gtest/gtest.h>
#include <nxahost/program_supervisor.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "capture.h"
#include "fakes.h"

namespace hosttest {
namespace {

using nxahost::ProgramState;
using nxahost::ProgramSupervisor;
using nxahost::RestartPolicy;

class Supervision : public ::testing::Test {
protected:
    explicit Supervision(RestartPolicy policy = RestartPolicy::onFailure,
                         std::vector<std::string> names = {"a", "b"})
        : programs(std::move(names)), supervisor(programs, policy, clock, jitter, getpid()) {
        supervisor.startedAll();
    }

    // The program ends and the end is seen (as a SIGCHLD makes the host look).
    void ends(std::string const& module, int status) {
        programs.exit(module, status);
        supervisor.checkEnded();
    }
    // Moves the clock to the next thing due and lets the supervisor act on it.
    void runToNextDue() {
        auto const due = supervisor.nextDue();
        ASSERT_TRUE(due) << "nothing is due";
        clock.advance(*due - clock.now());
        supervisor.advance();
    }
    double secondsUntilDue() const {
        return std::chrono::duration<double>(*supervisor.nextDue() - clock.now()).count();
    }

    // Keeps the supervisor's lines out of the test's output.
    nxatest::Capture quiet;
    FakeClock clock;
    FakeJitter jitter;
    FakePrograms programs;
    ProgramSupervisor supervisor;
};

class SupervisionNever : public Supervision {
protected:
    SupervisionNever() : Supervision(RestartPolicy::never) {}
};

class SupervisionAlways : public Supervision {
protected:
    SupervisionAlways() : Supervision(RestartPolicy::always) {}
};

TEST_F(Supervision, NothingIsDueWhileEveryProgramRuns) {
    EXPECT_FALSE(supervisor.nextDue());
    EXPECT_FALSE(supervisor.checkEnded());
    EXPECT_FALSE(supervisor.advance());
    EXPECT_EQ(supervisor.restarting(), 0u);
    EXPECT_EQ(supervisor.ended(), 0u);
    EXPECT_EQ(supervisor.status("a").state, ProgramState::running);
    EXPECT_EQ(supervisor.status("a").pid, programs.pid("a"));
}

TEST_F(Supervision, AFailingProgramIsStartedAgainAfterOneTwoFourSecondsAndSoOnUpToSixty) {
    std::vector<double> delays;
    for (int i = 0; i < 9; ++i) {
        ends("a", 1);
        delays.push_back(secondsUntilDue());
        runToNextDue();
        ASSERT_EQ(supervisor.status("a").state, ProgramState::running) << "restart " << i + 1;
    }
    EXPECT_EQ(delays, (std::vector<double>{1, 2, 4, 8, 16, 32, 60, 60, 60}));
    EXPECT_EQ(supervisor.status("a").restarts, 9u);
    EXPECT_EQ(programs["a"].starts, 9);
    EXPECT_EQ(supervisor.status("b").restarts, 0u) << "the neighbour is left alone";
}

TEST_F(Supervision, AProgramThatRanSixtySecondsStartsOverFromOneSecond) {
    for (int i = 0; i < 3; ++i) {
        ends("a", 1);
        runToNextDue();
    }
    ends("a", 1);
    EXPECT_EQ(secondsUntilDue(), 8);
    runToNextDue();
    clock.advance(ProgramSupervisor::kRunLongEnough);
    ends("a", 1);
    EXPECT_EQ(secondsUntilDue(), 1);
}

TEST_F(Supervision, TheRandomPartIsAskedForUpToAFifthOfTheDelayAndAdded) {
    jitter.fraction = 1.0;
    ends("a", 1);
    EXPECT_EQ(jitter.asked, (std::vector<std::chrono::milliseconds>{200ms}));
    EXPECT_DOUBLE_EQ(secondsUntilDue(), 1.2);
    runToNextDue();
    ends("a", 1);
    EXPECT_EQ(jitter.asked.back(), 400ms);
    EXPECT_DOUBLE_EQ(secondsUntilDue(), 2.4);
}

TEST(RandomJitter, StaysWithinZeroAndTheMostItIsAskedFor) {
    nxahost::RandomJitter jitter;
    bool sawZero = false, sawMost = false;
    for (int i = 0; i < 20000; ++i) {
        std::chrono::milliseconds const drawn = jitter.upTo(10ms);
        ASSERT_GE(drawn, 0ms);
        ASSERT_LE(drawn, 10ms);
        sawZero = sawZero || drawn == 0ms;
        sawMost = sawMost || drawn == 10ms;
    }
    EXPECT_TRUE(sawZero && sawMost) << "both ends are drawn";
    EXPECT_EQ(jitter.upTo(0ms), 0ms);
}

TEST_F(Supervision, OnFailureRestartsAFailureOrASignalButNotASuccess) {
    ends("a", 0);
    EXPECT_EQ(supervisor.status("a").state, ProgramState::ended);
    EXPECT_EQ(supervisor.status("a").lastEnd, "exit status 0");
    programs.killBySignal("b", 9);
    supervisor.checkEnded();
    EXPECT_EQ(supervisor.status("b").state, ProgramState::restarting);
    EXPECT_EQ(supervisor.status("b").lastEnd, "signal 9");
    EXPECT_EQ(supervisor.restarting(), 1u);
    EXPECT_EQ(supervisor.ended(), 1u);
}

TEST_F(SupervisionNever, NeverLeavesEveryEndedProgramEnded) {
    ends("a", 3);
    ends("b", 0);
    EXPECT_EQ(supervisor.status("a").state, ProgramState::ended);
    EXPECT_EQ(supervisor.status("b").state, ProgramState::ended);
    EXPECT_FALSE(supervisor.nextDue());
    EXPECT_EQ(programs["a"].told,
              (std::vector<std::string>{"[nxahost] program ended: exit status 3; not restarted\n"}));
}

TEST_F(SupervisionAlways, AlwaysRestartsAProgramThatSucceededToo) {
    ends("a", 0);
    EXPECT_EQ(supervisor.status("a").state, ProgramState::restarting);
    runToNextDue();
    EXPECT_EQ(supervisor.status("a").state, ProgramState::running);
    EXPECT_EQ(programs["a"].starts, 1);
}

TEST_F(Supervision, AnEndedProgramsClientsAreToldAndTheBusHearsStopped) {
    ends("a", 3);
    EXPECT_EQ(programs["a"].told,
              (std::vector<std::string>{"[nxahost] program ended: exit status 3; restart in 1 s\n"}));
    EXPECT_EQ(programs["a"].announced, (std::vector<std::string>{"stopped"}));
    EXPECT_TRUE(programs["b"].told.empty());
}

TEST_F(Supervision, AnEndIsReportedOnceItsLastOutputIsReadOrASecondAfterItWasSeen) {
    programs["a"].pending = 100;
    programs.exit("a", 1);
    EXPECT_FALSE(supervisor.checkEnded()) << "its output is still on its way";
    EXPECT_TRUE(supervisor.reportingEnds());
    programs["a"].pending = 0;
    EXPECT_TRUE(supervisor.reportDrainedEnds());
    EXPECT_FALSE(supervisor.reportingEnds());

    programs["b"].pending = 100;
    programs.exit("b", 1);
    EXPECT_FALSE(supervisor.checkEnded());
    clock.advance(ProgramSupervisor::kReportLimit - 1ms);
    EXPECT_FALSE(supervisor.reportDrainedEnds());
    clock.advance(1ms);
    EXPECT_TRUE(supervisor.reportDrainedEnds()) << "reported a second after its end at the latest";
    EXPECT_FALSE(supervisor.checkEnded()) << "reported once";
    EXPECT_EQ(programs["b"].told.size(), 1u);
}

TEST_F(Supervision, ARestartAsksTheProgramToEndAndStartsTheNewOneOnceItHas) {
    pid_t const old = programs.pid("a");
    std::vector<std::string> answers;
    EXPECT_TRUE(supervisor.requestRestart("a", [&](std::string const& error) { answers.push_back(error); }));
    EXPECT_EQ(programs["a"].terms, 1);
    EXPECT_EQ(answers, (std::vector<std::string>{""})) << "an obedient program is gone at once";
    EXPECT_NE(supervisor.status("a").pid, old);
    EXPECT_EQ(supervisor.status("a").state, ProgramState::running);
    EXPECT_EQ(supervisor.status("a").restarts, 1u);
    EXPECT_FALSE(supervisor.checkEnded()) << "the end was asked for: nothing to report";
    EXPECT_TRUE(programs["a"].told.empty());
}

TEST_F(Supervision, AProgramThatIgnoresSigtermIsKilledWhenItsGraceTimeIsOverWithoutAWait) {
    programs["a"].obeysTerm = false;
    std::vector<std::string> answers;
    ASSERT_TRUE(supervisor.requestRestart("a", [&](std::string const& error) { answers.push_back(error); }));
    EXPECT_TRUE(answers.empty());
    EXPECT_EQ(supervisor.status("a").state, ProgramState::restarting);
    EXPECT_EQ(supervisor.restarting(), 1u);
    EXPECT_EQ(secondsUntilDue(), 1) << "the kill is due after the grace time";
    clock.advance(999ms);
    EXPECT_FALSE(supervisor.advance());
    EXPECT_EQ(programs["a"].kills, 0);
    clock.advance(1ms);
    EXPECT_TRUE(supervisor.advance());
    EXPECT_EQ(programs["a"].kills, 1);
    EXPECT_FALSE(supervisor.nextDue()) << "a killed program is collected when its end is signalled";
    EXPECT_TRUE(answers.empty());
    // The kill's SIGCHLD.
    supervisor.checkEnded();
    supervisor.advance();
    EXPECT_EQ(answers, (std::vector<std::string>{""}));
    EXPECT_EQ(programs["a"].starts, 1);
    EXPECT_TRUE(programs["a"].told.empty()) << "the end of a program being restarted is not reported";
}

TEST_F(Supervision, RequestsForARestartUnderWayJoinItAndEachIsAnswered) {
    programs["a"].obeysTerm = false;
    int answered = 0;
    for (int i = 0; i < 3; ++i) supervisor.requestRestart("a", [&](std::string const&) { ++answered; });
    EXPECT_EQ(programs["a"].terms, 1);
    runToNextDue();
    supervisor.advance();
    EXPECT_EQ(answered, 3);
    EXPECT_EQ(programs["a"].starts, 1) << "one new program";
}

TEST_F(Supervision, ARestartOfAnUnknownModuleIsRefusedAndNeverAnswered) {
    bool answered = false;
    EXPECT_FALSE(supervisor.requestRestart("nothing", [&](std::string const&) { answered = true; }));
    EXPECT_FALSE(answered);
}

TEST_F(Supervision, ARestartOfAProgramWaitingForItsBackOffStartsItNow) {
    ends("a", 1);
    ASSERT_TRUE(supervisor.nextDue());
    bool done = false;
    supervisor.requestRestart("a", [&](std::string const& error) { done = error.empty(); });
    EXPECT_TRUE(done);
    EXPECT_FALSE(supervisor.nextDue()) << "the back-off's restart is no longer due";
    EXPECT_EQ(programs["a"].starts, 1);
}

TEST_F(Supervision, AStartThatFailsIsAnsweredWithTheErrorAndTriedAgainAfterTheDelay) {
    programs["a"].failStart = true;
    std::string answer = "not yet";
    supervisor.requestRestart("a", [&](std::string const& error) { answer = error; });
    EXPECT_EQ(answer, "cannot start module program a again: cannot fork: Resource temporarily unavailable");
    EXPECT_EQ(supervisor.status("a").state, ProgramState::restarting);
    EXPECT_EQ(secondsUntilDue(), 1);
    programs["a"].failStart = false;
    runToNextDue();
    EXPECT_EQ(supervisor.status("a").state, ProgramState::running);
    EXPECT_EQ(programs["a"].starts, 1);
}

TEST_F(Supervision, ARestartUnderWayWhenTheModulesAreReloadedIsAnsweredByTheReload) {
    programs["a"].obeysTerm = false;
    programs["b"].obeysTerm = false;
    std::string aAnswer = "none", bAnswer = "none";
    supervisor.requestRestart("a", [&](std::string const& error) { aAnswer = error; });
    supervisor.requestRestart("b", [&](std::string const& error) { bAnswer = error; });
    // The reload stops every program and starts the new configuration's.
    programs.reconfigure({"a", "c"});
    supervisor.startedAll();
    EXPECT_EQ(aAnswer, "") << "a runs a new program";
    EXPECT_EQ(bAnswer, "no module named b");
    EXPECT_FALSE(supervisor.nextDue()) << "no kill is left due";
    EXPECT_EQ(supervisor.restarting(), 0u);
    EXPECT_EQ(supervisor.status("c").state, ProgramState::running);
}

TEST_F(Supervision, ABackOffRestartDueWhenTheModulesAreReloadedIsForgotten) {
    ends("a", 1);
    ASSERT_EQ(supervisor.restarting(), 1u);
    programs.reconfigure({"a", "b"});
    supervisor.startedAll();
    EXPECT_EQ(supervisor.restarting(), 0u);
    EXPECT_FALSE(supervisor.nextDue());
    EXPECT_EQ(supervisor.status("a").restarts, 0u);
    EXPECT_EQ(supervisor.status("a").lastEnd, "");
}

TEST_F(Supervision, StoppingAnswersEveryRestartStillWaiting) {
    programs["a"].obeysTerm = false;
    std::string answer = "none";
    supervisor.requestRestart("a", [&](std::string const& error) { answer = error; });
    supervisor.abandonRestarts("the host is stopping");
    EXPECT_EQ(answer, "the host is stopping");
}

TEST_F(Supervision, AProgramEndedWhileItsEndWasAboutToBeReportedIsRestartedNotReported) {
    programs["a"].pending = 10;
    programs.exit("a", 1);
    supervisor.checkEnded();
    ASSERT_TRUE(supervisor.reportingEnds());
    supervisor.requestRestart("a", [](std::string const&) {});
    EXPECT_FALSE(supervisor.reportingEnds());
    EXPECT_TRUE(programs["a"].told.empty());
    EXPECT_EQ(supervisor.status("a").state, ProgramState::running);
}

TEST(StateName, NamesEachStateAsTheControlsDo) {
    EXPECT_STREQ(nxahost::stateName(ProgramState::running), "running");
    EXPECT_STREQ(nxahost::stateName(ProgramState::ended), "ended");
    EXPECT_STREQ(nxahost::stateName(ProgramState::restarting), "restarting");
}

}  // namespace
}  // namespace hosttest
