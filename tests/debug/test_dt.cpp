// ibp-dt as its user meets it: transcripts (keys in, screen out) typed into a
// pseudo-terminal, -c lines and their exit statuses; against a real ibp-isp,
// none, or a service that the test plays.
// And the programs side by side: of two started at the same moment on one
// port exactly one runs; ibp-ping says what fails while it fails and gives
// its figures when a signal stops it.
#include <fcntl.h>
#include <fnmatch.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>

#include <array>
#include <filesystem>
#include <memory>
#include <optional>

#include "debug/cmd_util.h"

using namespace ibptest;

namespace {

std::string Env(const char *pcName) { return getenv(pcName) != nullptr ? getenv(pcName) : ""; }
std::string Data(const std::string &sName) { return ReadData("debug/data/" + sName); }
std::string ReadAll(int fd, std::string s = "")  // to the end, or to EAGAIN
{
    char ac[4096];
    for (ssize_t n; (n = read(fd, ac, sizeof(ac))) > 0;)
        s.append(ac, n);
    return s;
}

// A program of the build, under the emulator if there is one, with fds[i] as
// its descriptor i; lKeep stays open in it and so ends with it. With lGate
// it waits for a byte from that pipe first, so that programs behind one gate
// start at the same moment.
pid_t Start(const char *pcProg, std::vector<std::string> vecArgs, std::array<int, 3> fds, int lKeep = -1,
            int lGate = -1)
{
    vecArgs.insert(vecArgs.begin(), Env(pcProg));
    if (!Env("IBP_EMULATOR").empty())
        vecArgs.insert(vecArgs.begin(), Env("IBP_EMULATOR"));
    std::vector<char *> argv;
    for (std::string &s : vecArgs)
        argv.push_back(s.data());
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        setsid();  // a pseudo-terminal on fds becomes its terminal
        for (int i = 0; i < 3; i++)
            dup2(fds[i], i);
        if (lKeep >= 0)
            fcntl(lKeep, F_SETFD, 0);
        for (char c; lGate >= 0 && read(lGate, &c, 1) < 0 && errno == EINTR;) {
        }
        execv(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

int Wait(pid_t pid)
{
    int lStatus = -1;
    waitpid(pid, &lStatus, 0);
    return WIFEXITED(lStatus) ? WEXITSTATUS(lStatus) : 128 + WTERMSIG(lStatus);
}

// The sample service, stopped with SIGINT at the end of the scope.
struct Service {
    int out[2] = {-1, -1};
    pid_t pid = -1;
    Service() { pipe2(out, O_CLOEXEC), pid = Start("IBP_ISP", {}, {0, out[1], out[1]}), close(out[1]); }
    bool Ready()  // it says so on standard output once it serves
    {
        std::string s;
        for (char c; s.find("serving") == std::string::npos && read(out[0], &c, 1) == 1;)
            s += c;
        return s.find("serving") != std::string::npos;
    }
    ~Service() { kill(pid, SIGINT), Wait(pid), close(out[0]); }
};

struct DtRun {
    int lStatus;
    std::string sOut, sErr;
};

DtRun RunDt(const std::vector<std::string> &vecArgs)
{
    int out[2], err[2];
    pipe2(out, O_CLOEXEC), pipe2(err, O_CLOEXEC);
    const pid_t pid = Start("IBP_DT", vecArgs, {0, out[1], err[1]});
    close(out[1]), close(err[1]);
    DtRun r{0, ReadAll(out[0]), ReadAll(err[0])};  // both small: no pipe fills up
    r.lStatus = Wait(pid);
    close(out[0]), close(err[0]);
    return r;
}

// The rows that a terminal shows after `sOut`, trailing blanks cut.
std::string Render(const std::string &sOut)
{
    std::vector<std::string> rows(1);
    size_t r = 0, c = 0;
    for (const char ch : sOut) {
        if (ch == '\n' && ++r == rows.size())
            rows.emplace_back();
        c = ch == '\r' ? 0 : ch == '\b' ? c - (c > 0) : ch == '\t' ? (c / 8 + 1) * 8 : c;
        if (isprint(static_cast<u8>(ch)) != 0) {
            rows[r].resize(std::max(rows[r].size(), c + 1), ' ');
            rows[r][c++] = ch;
        }
    }
    std::string s;
    for (std::string &row : rows)
        s += row.erase(row.find_last_not_of(' ') + 1) + "\n";
    return s;
}

// Keys as a .keys file writes them, in C escapes (\d DEL, \D Ctrl-D); the file's line ends are no keys.
std::string Keys(std::string sText) { return std::erase(sText, '\n'), Unescape(sText); }

// A service that the test plays on 127.0.0.1:7001, by a script of one line
// per request, in order: "tree FILE" (a data file) or "cmd TEXT", C escapes
// read, or "-" in place of FILE or TEXT for a request left unanswered.
struct Played {
    std::vector<std::optional<std::string>> answers;
    int fd = -1;
    size_t ulAsked = 0;
};

Played ReadScript(const std::string &sName)
{
    Played p;
    std::istringstream in(Data(sName));
    for (std::string sKind, sArg; in >> sKind && std::getline(in >> std::ws, sArg);)
        p.answers.push_back(sArg == "-" ? std::nullopt
                                        : std::optional(Unescape(sKind == "tree" ? Data(sArg) : sArg)));
    return p;
}

struct Session {
    std::string sScreen;
    int lStatus = -1;
    bool bRestored = false;  // the terminal settings are those from before
};

// The played service's turn: the next line of its script for a datagram; beyond the script, none. A
// request that the tool should have kept to itself takes the answer of the next one.
void Answer(Played *pPlay)
{
    Bytes b(8192);
    b.resize(std::max<ssize_t>(recv(pPlay->fd, b.data(), b.size(), 0), MSG_HDR_LEN));
    const sockaddr_in dt = {AF_INET, htons(7002), {htonl(INADDR_LOOPBACK)}, {}};
    if (const size_t i = pPlay->ulAsked++; i < pPlay->answers.size() && pPlay->answers[i]) {
        const Bytes ack = AckTo(b, *pPlay->answers[i]);
        sendto(pPlay->fd, ack.data(), ack.size(), 0, reinterpret_cast<const sockaddr *>(&dt), sizeof(dt));
    }
}

// Runs ibp-dt with vecArgs on a pseudo-terminal whose erase character is
// 0x7F, types `sKeys` once its prompt shows, then hangs up or sends lSignal if
// asked to. With a script the test plays the service.
Session Type(const std::string &sKeys, const std::vector<std::string> &vecArgs = {}, Played *pPlay = nullptr,
             bool bHangUp = false, int lSignal = 0)
{
    Session s;
    int lMaster = -1, lSlave = -1, ex[2];
    termios before{}, after{};
    EXPECT_EQ(openpty(&lMaster, &lSlave, nullptr, nullptr, nullptr), 0);
    fcntl(lMaster, F_SETFL, O_NONBLOCK);
    fcntl(lMaster, F_SETFD, FD_CLOEXEC), fcntl(lSlave, F_SETFD, FD_CLOEXEC);  // the tool gets the slave as 0, 1, 2 only
    tcgetattr(lSlave, &before);
    before.c_cc[VERASE] = 0x7f;
    tcsetattr(lSlave, TCSANOW, &before);
    const int lUdp = pPlay != nullptr ? pPlay->fd = socket(AF_INET, SOCK_DGRAM, 0) : -1;
    const sockaddr_in isp = {AF_INET, htons(7001), {htonl(INADDR_LOOPBACK)}, {}};
    EXPECT_TRUE(lUdp < 0 || bind(lUdp, reinterpret_cast<const sockaddr *>(&isp), sizeof(isp)) == 0);
    pipe2(ex, O_CLOEXEC);  // reaches its end when the tool ends
    const pid_t pid = Start("IBP_DT", vecArgs, {lSlave, lSlave, lSlave}, ex[1]);
    close(ex[1]);
    std::string sOut;
    for (pollfd p[3] = {{ex[0], POLLIN, 0}, {lMaster, POLLIN, 0}, {lUdp, POLLIN, 0}}; p[0].revents == 0;) {
        // A safety bound only: every wait ends on output, a datagram or the exit.
        if (poll(p, lUdp >= 0 ? 3 : 2, 20000) <= 0) {
            ADD_FAILURE() << "ibp-dt hangs; its screen:\n" << Render(sOut);
            kill(pid, SIGKILL);
            break;
        }
        const bool bPrompted = sOut.find("[CMD] ") != std::string::npos;
        sOut = ReadAll(lMaster, sOut);
        if (!bPrompted && sOut.find("[CMD] ") != std::string::npos) {  // raw mode is on
            EXPECT_EQ(write(lMaster, sKeys.data(), sKeys.size()), ssize_t(sKeys.size()));
            if (bHangUp)
                close(lMaster), lMaster = p[1].fd = -1;
            if (lSignal != 0)
                kill(pid, lSignal);
        }
        if ((p[2].revents & POLLIN) != 0)
            Answer(pPlay);
    }
    s.sScreen = Render(ReadAll(lMaster, sOut));
    s.lStatus = Wait(pid);
    tcgetattr(lSlave, &after);
    s.bRestored = memcmp(&before, &after, sizeof(before)) == 0;
    for (int fd : {lMaster, lSlave, lUdp, ex[0]})
        close(fd);
    return s;
}

// Each transcript NAME: NAME.keys typed, NAME.screen seen, with the options
// of NAME.args (one a line) if there is such a file, and against the service
// that NAME.service plays if there is one, otherwise the real ibp-isp.
void PlayTranscripts(bool bPlayed)
{
    const std::string sDir = std::string(IBP_TEST_DATA_DIR) + "/debug/data/transcripts";
    for (const auto &e : std::filesystem::directory_iterator(sDir)) {
        const std::string sName = "transcripts/" + e.path().stem().string();
        if (e.path().extension() != ".keys" || std::filesystem::exists(sDir + "/../" + sName + ".service") != bPlayed)
            continue;
        SCOPED_TRACE(sName);
        const std::vector<std::string> vecArgs = Split(Data(sName + ".args"), '\n');
        Played play = bPlayed ? ReadScript(sName + ".service") : Played{};
        const Session s = Type(Keys(Data(sName + ".keys")), vecArgs, bPlayed ? &play : nullptr);
        EXPECT_EQ(Data(sName + ".screen"), s.sScreen);
        EXPECT_EQ(s.lStatus, 0);
        EXPECT_TRUE(s.bRestored);
    }
}

// A program on a pseudo-terminal of its own, started behind a gate if there
// is one, from a row: program, arguments, what it shows once it runs, ...;
// its output, and whether it ended (its terminal hangs up).
struct OnPty {
    std::vector<std::string> row;
    pid_t pid = -1;
    int lMaster = -1;
    std::string sOut;
    bool bEnded = false;
    OnPty(const std::vector<std::string> &stRow, int lGate) : row(stRow)
    {
        int lSlave = -1;
        openpty(&lMaster, &lSlave, nullptr, nullptr, nullptr);
        fcntl(lMaster, F_SETFD, FD_CLOEXEC), fcntl(lSlave, F_SETFD, FD_CLOEXEC);
        pid = Start(row[0].c_str(), Split(row[1], ';'), {lSlave, lSlave, lSlave}, -1, lGate);
        close(lSlave);
    }
    ~OnPty() { close(lMaster); }
    bool Runs() const { return sOut.find(row[2]) != std::string::npos; }
    void Read()
    {
        char ac[512];
        const ssize_t n = read(lMaster, ac, sizeof(ac));
        bEnded |= n <= 0;
        sOut.append(ac, std::max<ssize_t>(n, 0));
    }
};

}  // namespace

TEST(DebugTool, TranscriptsInAPseudoTerminal)
{
    IBP_REQUIRE_ISOLATION();
    PlayTranscripts(true);
    Service isp;
    ASSERT_TRUE(isp.Ready());
    PlayTranscripts(false);
    // A terminal that goes away ends the tool as "q" does, without spinning.
    EXPECT_EQ(Type("isp bp", {}, nullptr, true).lStatus, 0);
    const Session stKilled = Type("isp bp", {}, nullptr, false, SIGTERM);  // the terminal put back all the same
    EXPECT_EQ(stKilled.lStatus, 128 + SIGTERM);
    EXPECT_TRUE(stKilled.bRestored);
}

TEST(DebugTool, LinesWithoutATerminalAndTheirExitStatus)
{
    IBP_REQUIRE_ISOLATION();
    // No service: one line says so, and the lines behind are not tried.
    const DtRun stNone = RunDt({"-c", "isp bp proc cfg", "-c", "isp bp"});
    EXPECT_EQ(stNone.lStatus, 2);
    EXPECT_EQ(stNone.sOut + stNone.sErr, Data("no_answer.txt"));
    Service isp;
    ASSERT_TRUE(isp.Ready());
    for (const auto &row : Rows("debug/data/dt_lines.txt")) {  // arguments, exit status, the two streams
        const DtRun r = RunDt(Split(row[0], ';'));
        EXPECT_EQ(r.lStatus, std::stoi(row[1])) << row[0] << r.sErr;
        EXPECT_EQ(r.sOut, row[2]) << row[0];
        EXPECT_EQ(r.sErr, row.size() > 3 ? row[3] : "") << row[0];
    }
}

TEST(Programs, OfTwoStartedTogetherOnOnePortExactlyOneRuns)
{
    IBP_REQUIRE_ISOLATION();
    const auto rows = Rows("debug/data/one_per_port.txt");  // ibp-isp, ibp-dt, ibp-ping
    const std::pair<int, int> kPairs[] = {{0, 0}, {1, 1}, {2, 2}, {1, 2}};
    std::unique_ptr<Service> isp;
    for (const auto &[lFirst, lSecond] : kPairs) {
        if (lFirst != 0 && !isp) {  // the debug tools' pairs beside a service
            isp = std::make_unique<Service>();
            ASSERT_TRUE(isp->Ready());
        }
        for (int lRound = 0; lRound < 10; lRound++) {
            SCOPED_TRACE(rows[lFirst][0] + " and " + rows[lSecond][0] + ", round " + std::to_string(lRound));
            int gate[2];
            pipe2(gate, O_CLOEXEC);
            OnPty pair[2] = {{rows[lFirst], gate[0]}, {rows[lSecond], gate[0]}};
            EXPECT_EQ(write(gate[1], "go", 2), 2);  // a byte for each, at once
            // Until one has ended and the other shows that it runs; 20 s are a safety bound only.
            while (pair[0].bEnded + pair[1].bEnded + pair[0].Runs() + pair[1].Runs() < 2) {
                pollfd p[2] = {{pair[0].bEnded ? -1 : pair[0].lMaster, POLLIN, 0},
                               {pair[1].bEnded ? -1 : pair[1].lMaster, POLLIN, 0}};
                ASSERT_GT(poll(p, 2, 20000), 0);
                for (int i = 0; i < 2; i++)
                    if (p[i].revents != 0)
                        pair[i].Read();
            }
            OnPty &out = pair[pair[0].bEnded ? 0 : 1], &in = pair[pair[0].bEnded ? 1 : 0];
            EXPECT_TRUE(out.bEnded && !in.bEnded && in.Runs());
            kill(in.pid, SIGTERM), kill(out.pid, SIGTERM);  // the latter only if it runs after all
            EXPECT_EQ(Wait(out.pid), 1);
            Wait(in.pid);
            std::erase(out.sOut, '\r');
            EXPECT_EQ(out.sOut, out.row[3] + "\n");
            close(gate[0]), close(gate[1]);
        }
    }
}

TEST(Programs, PingSaysWhatFailsWhileItFailsAndGivesItsFiguresOnSigterm)
{
    IBP_REQUIRE_ISOLATION();
    RawPeer isp(7001);  // the test plays the service: it echoes the first record, then falls silent
    ASSERT_TRUE(isp.Bound());
    // Arguments, what it says while records fail, all it says.
    const auto want = Rows("debug/data/ping_stopped.txt")[0];
    OnPty ping({"IBP_PING", want[0], want[1]}, -1);
    const Bytes req = isp.Recv();
    ASSERT_GE(req.size(), MSG_HDR_LEN);
    isp.SendTo(7002, AckTo(req, std::string(req.begin() + MSG_HDR_LEN, req.end())));
    while (!ping.Runs() && !ping.bEnded)
        ping.Read();
    kill(ping.pid, SIGTERM);
    EXPECT_EQ(Wait(ping.pid), 1);
    const std::string sAll = ReadAll(ping.lMaster, ping.sOut);
    EXPECT_EQ(fnmatch(want[2].c_str(), sAll.c_str(), 0), 0) << sAll;
    // Stopped while its first record waits: nothing answered is a failure, and a second signal ends the wait.
    OnPty lone({"IBP_PING", "-t;600000", "no answer yet"}, -1);
    while (!lone.Runs() && !lone.bEnded)
        lone.Read();
    kill(lone.pid, SIGINT);
    for (lone.row[2] = "answered"; !lone.Runs() && !lone.bEnded;)  // the figures are out
        lone.Read();
    kill(lone.pid, SIGINT);
    EXPECT_EQ(Wait(lone.pid), 1);
}
