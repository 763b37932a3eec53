#include "tests/support/lab.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

#include "tests/support/paths.h"

namespace {

using Clock = std::chrono::steady_clock;

// The daemon's three places, covered by a fresh tmpfs each.
constexpr const char* places[] = {"/etc/opt", "/var/opt", "/opt"};
constexpr int place_ct = 3;

Clock::time_point deadline_in(double seconds)
{
    return Clock::now() + std::chrono::microseconds(int64_t(seconds * 1e6));
}

bool past(Clock::time_point deadline) { return Clock::now() >= deadline; }

int ms_left(Clock::time_point deadline)
{
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return left.count() <= 0 ? 0 : int(left.count());
}

void pause_briefly() { usleep(20 * 1000); }

std::string errtext(const char* what)
{
    return std::string(what) + ": " + strerror(errno);
}

ino_t netns_inode_of(const char* path)
{
    struct stat st {};
    return stat(path, &st) == 0 ? st.st_ino : 0;
}

ino_t netns_inode_of_fd(int fd)
{
    struct stat st {};
    return fstat(fd, &st) == 0 ? st.st_ino : 0;
}

// State letter of /proc/PID/stat and its parent, or '?' when it is gone.
char proc_state(pid_t pid, pid_t* ppid = nullptr)
{
    std::string stat = lab_read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t close_paren = stat.rfind(')');
    if (close_paren == std::string::npos || close_paren + 2 >= stat.size())
        return '?';
    if (ppid != nullptr)
        *ppid = pid_t(atoi(stat.c_str() + close_paren + 4));
    return stat[close_paren + 2];
}

bool alive(pid_t pid)
{
    if (pid <= 0)
        return false;
    if (kill(pid, 0) != 0 && errno == ESRCH)
        return false;
    char s = proc_state(pid);
    return s != '?' && s != 'Z' && s != 'X';
}

const char* find_ip()
{
    for (const char* p : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"})
        if (access(p, X_OK) == 0)
            return p;
    return nullptr;
}

// A new network namespace held by the returned descriptor; the caller stays
// where it was.
int new_netns()
{
    int self = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    if (self < 0)
        return -1;
    int fd = -1;
    if (unshare(CLONE_NEWNET) == 0) {
        fd = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
        if (setns(self, CLONE_NEWNET) != 0)
            abort();  // stranded in a lab namespace: stop rather than go on wrongly
    }
    close(self);
    return fd;
}

// fork + exec inside network namespace ns_fd (-1: stay). Output to out_fd
// when >= 0. Only async-signal-safe calls between fork and exec.
pid_t spawn(int ns_fd, const std::vector<std::string>& args, int out_fd, int uid, int gid)
{
    std::vector<char*> argv;
    for (const std::string& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);

    pid_t pid = fork();
    if (pid != 0)
        return pid;
    if (ns_fd >= 0 && setns(ns_fd, CLONE_NEWNET) != 0)
        _exit(126);
    int devnull = open("/dev/null", O_RDWR);
    if (devnull >= 0)
        dup2(devnull, 0);
    if (out_fd >= 0) {
        dup2(out_fd, 1);
        dup2(out_fd, 2);
    }
    // A quit signal ends the daemon with a core image; keep that out of the lab.
    struct rlimit no_core {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (gid >= 0 && (setgroups(0, nullptr) != 0 || setgid(gid_t(gid)) != 0))
        _exit(125);
    if (uid >= 0 && setuid(uid_t(uid)) != 0)
        _exit(125);
    execv(argv[0], argv.data());
    _exit(127);
}

// Waits for our child pid; SIGKILL at the deadline. Its wait status, or -1.
int wait_child(pid_t pid, Clock::time_point deadline)
{
    int status = 0;
    for (;;) {
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid)
            return status;
        if (r < 0)
            return -1;
        if (past(deadline))
            break;
        pause_briefly();
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return -1;
}

}  // namespace

std::string lab_enter_private_namespaces()
{
    static bool tried = false;
    static std::string why;
    if (tried)
        return why;
    tried = true;
    if (geteuid() != 0)
        return why = "needs root: the lab creates namespaces, tmpfs mounts and veth links";
    ino_t host_net = netns_inode_of("/proc/self/ns/net");
    if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0)
        return why = "namespaces not permitted here (" + errtext("unshare") + ")";
    // Nothing mounted from here on may propagate back to the host.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return why = "cannot make the private mount namespace private (" + errtext("mount") + ")";
    if (host_net == 0 || netns_inode_of("/proc/self/ns/net") == host_net)
        return why = "did not leave the host network namespace";
    // Orphans (the daemon after its fork) come to us, so their status is seen.
    if (prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0)
        return why = errtext("prctl(PR_SET_CHILD_SUBREAPER)");
    return why;
}

std::vector<LabLogGroup> lab_parse_log(const std::string& text)
{
    std::vector<LabLogGroup> groups;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find("\r\n", pos);
        std::string line = text.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
        pos = end == std::string::npos ? text.size() : end + 2;
        if (!line.empty() && line[0] == '\t') {
            if (groups.empty())
                groups.push_back({});
            groups.back().messages.push_back(line.substr(1));
        } else if (!line.empty()) {
            groups.push_back({line, {}});
        }
    }
    return groups;
}

std::string lab_read_file(const std::string& path)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return "";
    std::string text;
    char buf[4096];
    for (int i = 0; i < 4096; ++i) {  // at most 16 MiB: plenty for a log or trace
        ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0)
            break;
        text.append(buf, size_t(n));
    }
    close(fd);
    return text;
}

pid_t lab_plist_pid(const std::string& plist_text)
{
    size_t pos = 0;
    while (pos < plist_text.size()) {
        size_t end = plist_text.find('\n', pos);
        if (end == std::string::npos)
            end = plist_text.size();
        if (plist_text.compare(pos, 4, "pid ") == 0 && end > pos + 4) {
            long v = strtol(plist_text.c_str() + pos + 4, nullptr, 10);
            return v > 0 ? pid_t(v) : -1;
        }
        pos = end + 1;
    }
    return -1;
}

std::string lab_describe_status(int wstatus)
{
    if (wstatus == -1)
        return "no status (did not end, or not our child)";
    if (WIFEXITED(wstatus))
        return "exited " + std::to_string(WEXITSTATUS(wstatus));
    if (WIFSIGNALED(wstatus))
        return "killed by signal " + std::to_string(WTERMSIG(wstatus));
    return "wait status " + std::to_string(wstatus);
}

Lab::~Lab()
{
    kill_leftovers();
    reap();
    // Every process of the lab has ended now, so every report is complete.
    std::string reports = sanitizer_reports();
    if (!reports.empty())
        ADD_FAILURE() << "sanitizer findings in the lab:\n" << reports;
    end_sanitizer_reports();
    for (int fd : sockets_)
        close(fd);
    // The namespaces end with their last descriptor; their veths go with them.
    if (daemon_ns_ >= 0)
        close(daemon_ns_);
    for (int& fd : station_ns_)
        if (fd >= 0)
            close(fd);
    // Lazy unmount only: nothing is ever removed file by file.
    if (mounted_) {
        for (int i = place_ct - 1; i >= 0; --i)
            umount2(places[i], MNT_DETACH);
    }
    reap();
}

std::string Lab::setup(int stations)
{
    std::string why = lab_enter_private_namespaces();
    if (!why.empty())
        return why;
    if (stations < 1 || stations > 2)
        return "a lab has one or two stations";
    if (mounted_)
        return "lab set up twice";
    why = setup_sanitizer_reports();
    if (!why.empty())
        return why;
    const char* ip = find_ip();
    if (ip == nullptr)
        return "the ip command (iproute2) is not installed";

    for (const char* place : places) {
        struct stat st {};
        if (stat(place, &st) != 0 || !S_ISDIR(st.st_mode))
            return std::string(place) + " does not exist here; the lab covers it, never creates it";
    }
    for (int i = 0; i < place_ct; ++i) {
        if (mount("halyard-lab", places[i], "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755,size=64m") != 0) {
            why = "cannot mount a tmpfs over " + std::string(places[i]) + " (" + errtext("mount") + ")";
            while (--i >= 0)
                umount2(places[i], MNT_DETACH);
            return why;
        }
    }
    // A test binary run without a filter sets up one lab per test: each
    // stacks its tmpfs over the last and takes it away again.
    mounted_ = true;
    // The install's directories; the database root must exist before the
    // daemon registers (it creates only the objects below it).
    const struct { const char* path; mode_t mode; } dirs[] = {
        {"/etc/opt/KORRbase", 0755},       {"/var/opt/KORRbase", 0755},
        {"/var/opt/KORRbase/rtdb", 0775},  {"/opt/KORRlibs", 0755},
        {"/opt/KORRlibs/lib", 0755},
    };
    for (const auto& d : dirs)
        if (mkdir(d.path, d.mode) != 0 || chmod(d.path, d.mode) != 0)
            return errtext(d.path);

    daemon_ns_ = new_netns();
    if (daemon_ns_ < 0)
        return "cannot create the daemon's network namespace (" + errtext("unshare") + ")";
    for (int s = 0; s < stations; ++s) {
        station_ns_[s] = new_netns();
        if (station_ns_[s] < 0)
            return "cannot create a station's network namespace (" + errtext("unshare") + ")";
    }
    stations_ = stations;

    // Every namespace gets its loopback; each station one veth pair.
    std::string out;
    auto ip_in = [&](LabSide side, std::vector<std::string> args) {
        args.insert(args.begin(), ip);
        int st = run(side, args, &out, 30.0);
        if (st == 0)
            return true;
        error_ = "ip";
        for (size_t i = 1; i < args.size(); ++i)
            error_ += " " + args[i];
        error_ += ": " + lab_describe_status(st) + ": " + out;
        return false;
    };
    if (!ip_in(lab_daemon, {"link", "set", "lo", "up"}))
        return error_;
    for (int s = 1; s <= stations; ++s) {
        LabSide side = LabSide(s);
        std::string d_if = daemon_ifname(s);
        std::string s_if = s == 2 ? "hs1" : "hs0";
        std::string peer_ns = "/proc/" + std::to_string(getpid()) + "/fd/" +
                              std::to_string(ns_fd(side));
        if (!ip_in(lab_daemon, {"link", "add", "name", d_if, "type", "veth", "peer",
                                "name", s_if, "netns", peer_ns}) ||
            !ip_in(lab_daemon, {"addr", "add", std::string(daemon_addr(s)) + "/24",
                                "brd", "+", "dev", d_if}) ||
            !ip_in(lab_daemon, {"link", "set", d_if, "up"}) ||
            !ip_in(side, {"link", "set", "lo", "up"}) ||
            !ip_in(side, {"addr", "add", std::string(station_addr(s)) + "/24",
                          "brd", "+", "dev", s_if}) ||
            !ip_in(side, {"link", "set", s_if, "up"}))
            return error_;
        // The pair carries traffic once both ends report a carrier.
        auto deadline = deadline_in(10.0);
        for (;;) {
            bool up = ip_in(lab_daemon, {"-o", "link", "show", "dev", d_if}) &&
                      out.find("LOWER_UP") != std::string::npos &&
                      ip_in(side, {"-o", "link", "show", "dev", s_if}) &&
                      out.find("LOWER_UP") != std::string::npos;
            if (up)
                break;
            if (past(deadline))
                return "veth " + d_if + " did not come up: " + out;
            pause_briefly();
        }
    }
    error_.clear();
    return "";
}

int Lab::ns_fd(LabSide side) const
{
    if (side == lab_daemon)
        return daemon_ns_;
    int i = int(side) - 1;
    return i >= 0 && i < 2 ? station_ns_[i] : -1;
}

std::string Lab::default_config() const
{
    std::string text =
        "# The daemon's lab interfaces; every port takes its default.\n"
        "[realm NB]\n"
        "transport tcpip\n";
    for (int s = 1; s <= (stations_ > 0 ? stations_ : 1); ++s) {
        std::string net = s == 2 ? "10.89.0." : "10.88.0.";
        text += "\n[interface tcpip " + std::string(daemon_ifname(s)) + "]\n"
                "address " + net + "1\n"
                "netmask 255.255.255.0\n"
                "broadcast " + net + "255\n";
    }
    text += "\n[transport tcpip]\n";
    return text;
}

bool Lab::write_config(const std::string& text)
{
    config_written_ = true;
    return write_file(lab_config_path, text, 0644);
}

bool Lab::write_file(const std::string& path, const std::string& text, mode_t mode)
{
    if (!mounted_) {
        error_ = "write_file before setup";
        return false;
    }
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) {
        error_ = errtext(path.c_str());
        return false;
    }
    bool ok = fchmod(fd, mode) == 0;
    size_t done = 0;
    while (ok && done < text.size()) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        ok = n > 0;
        done += ok ? size_t(n) : 0;
    }
    ok = close(fd) == 0 && ok;
    if (!ok)
        error_ = errtext(path.c_str());
    return ok;
}

int Lab::launch(const std::vector<std::string>& args, double seconds, int uid, int gid,
                const char* binary)
{
    if (daemon_ns_ < 0) {
        error_ = "launch before setup";
        return -1;
    }
    std::vector<std::string> argv{binary != nullptr ? binary : halyard_binary()};
    argv.insert(argv.end(), args.begin(), args.end());
    pid_t pid = spawn(daemon_ns_, argv, -1, uid, gid);
    if (pid < 0) {
        error_ = errtext("fork");
        return -1;
    }
    int st = wait_child(pid, deadline_in(seconds));
    if (st == -1)
        error_ = "the launching process did not end within " + std::to_string(seconds) + " s";
    return st;
}

pid_t Lab::registered_pid() const
{
    return lab_plist_pid(lab_read_file(lab_plist_path));
}

pid_t Lab::wait_registered(double seconds) const
{
    auto deadline = deadline_in(seconds);
    for (;;) {
        pid_t pid = registered_pid();
        if (alive(pid))
            return pid;
        if (past(deadline))
            return -1;
        pause_briefly();
    }
}

pid_t Lab::start_daemon(const std::vector<std::string>& args, double seconds)
{
    if (!config_written_ && !write_config(default_config()))
        return -1;
    int st = launch(args, seconds);
    if (st == -1)
        return -1;
    if (!WIFEXITED(st) || WEXITSTATUS(st) != 0) {
        error_ = "the launching process " + lab_describe_status(st);
        return -1;
    }
    pid_t pid = wait_registered(seconds);
    if (pid < 0)
        error_ = "no live process registered within " + std::to_string(seconds) +
                 " s; registration: \"" + lab_read_file(lab_plist_path) + "\"; log:\n" + log();
    return pid;
}

bool Lab::stop_daemon(pid_t pid, double seconds, int* wstatus)
{
    if (wstatus != nullptr)
        *wstatus = -1;
    if (pid <= 0)
        return false;
    if (kill(pid, SIGTERM) != 0 && errno == ESRCH)
        return wait_exit(pid, 0.0, wstatus);
    if (wait_exit(pid, seconds, wstatus))
        return true;
    kill(pid, SIGKILL);
    wait_exit(pid, 10.0, wstatus);
    return false;
}

void Lab::reap()
{
    int status = 0;
    pid_t r;
    for (int i = 0; i < 1000 && (r = waitpid(-1, &status, WNOHANG)) > 0; ++i) {
        // Noted here, whoever asks for the status later.
        if (WIFEXITED(status) && WEXITSTATUS(status) == lab_sanitizer_status)
            sanitizer_exits_ += "process " + std::to_string(r) + " exited with status " +
                                std::to_string(lab_sanitizer_status) + " (a sanitizer's finding)\n";
        exits_.emplace_back(r, status);
    }
}

namespace {
constexpr const char* sanitizer_vars[2] = {"ASAN_OPTIONS", "UBSAN_OPTIONS"};
}  // namespace

std::string Lab::setup_sanitizer_reports()
{
    const char* tmp = getenv("TMPDIR");
    std::string templ = std::string(tmp != nullptr && tmp[0] == '/' ? tmp : "/tmp") +
                        "/halyard-lab-reports.XXXXXX";
    std::vector<char> path(templ.begin(), templ.end());
    path.push_back('\0');
    if (mkdtemp(path.data()) == nullptr)
        return errtext("mkdtemp for the sanitizer reports");
    report_dir_ = path.data();
    // A daemon started as another user writes its report here as well.
    if (chmod(report_dir_.c_str(), 01777) != 0)
        return errtext("chmod of the sanitizer report directory");
    // Later options override earlier ones; unsanitized programs ignore both.
    // UBSan's log_path names the same files: in a build with both, it
    // reaches ASan's report path.
    std::string extra = ":log_path=" + report_dir_ + "/report:exitcode=" +
                        std::to_string(lab_sanitizer_status);
    for (int i = 0; i < 2; ++i) {
        const char* old = getenv(sanitizer_vars[i]);
        had_env_[i] = old != nullptr;
        saved_env_[i] = old != nullptr ? old : "";
        std::string value = saved_env_[i] + extra;
        if (setenv(sanitizer_vars[i], value.c_str(), 1) != 0)
            return errtext("setenv");
    }
    return "";
}

std::string Lab::sanitizer_reports()
{
    reap();
    std::string text = sanitizer_exits_;
    if (report_dir_.empty())
        return text;
    if (DIR* d = opendir(report_dir_.c_str())) {
        while (dirent* e = readdir(d)) {
            if (e->d_name[0] == '.')
                continue;
            std::string file = report_dir_ + "/" + e->d_name;
            std::string report = lab_read_file(file);
            if (report.size() > 16384)
                report = report.substr(0, 16384) + "\n[... cut]\n";
            text += "--- " + file + "\n" + report;
        }
        closedir(d);
    }
    return text;
}

void Lab::end_sanitizer_reports()
{
    if (report_dir_.empty())
        return;
    // Only the files the sanitizers wrote; nothing can be mounted here.
    if (DIR* d = opendir(report_dir_.c_str())) {
        while (dirent* e = readdir(d)) {
            if (e->d_name[0] != '.')
                unlink((report_dir_ + "/" + e->d_name).c_str());
        }
        closedir(d);
    }
    rmdir(report_dir_.c_str());
    report_dir_.clear();
    for (int i = 0; i < 2; ++i) {
        if (had_env_[i])
            setenv(sanitizer_vars[i], saved_env_[i].c_str(), 1);
        else
            unsetenv(sanitizer_vars[i]);
    }
}

bool Lab::wait_exit(pid_t pid, double seconds, int* wstatus, pid_t* which)
{
    auto deadline = deadline_in(seconds);
    for (;;) {
        reap();
        for (auto it = exits_.begin(); it != exits_.end(); ++it) {
            if (pid == -1 || it->first == pid) {
                if (wstatus != nullptr)
                    *wstatus = it->second;
                if (which != nullptr)
                    *which = it->first;
                exits_.erase(it);
                return true;
            }
        }
        if (pid > 0) {
            pid_t ppid = 0;
            char s = proc_state(pid, &ppid);
            bool ours = s != '?' && ppid == getpid();
            if (!ours && !alive(pid)) {
                if (wstatus != nullptr)
                    *wstatus = -1;
                if (which != nullptr)
                    *which = pid;
                return true;
            }
        }
        if (past(deadline))
            return false;
        pause_briefly();
    }
}

bool Lab::wait_log(const std::string& text, double seconds) const
{
    auto deadline = deadline_in(seconds);
    for (;;) {
        if (log().find(text) != std::string::npos)
            return true;
        if (past(deadline))
            return false;
        pause_briefly();
    }
}

std::string Lab::trace(const std::string& name) const
{
    return lab_read_file(std::string(lab_home) + "/" + name);
}

bool Lab::wait_trace(const std::string& text, const std::string& name, double seconds) const
{
    auto deadline = deadline_in(seconds);
    for (;;) {
        if (trace(name).find(text) != std::string::npos)
            return true;
        if (past(deadline))
            return false;
        pause_briefly();
    }
}

bool Lab::udp_port_bound(pid_t pid, uint16_t port)
{
    // Lines: "  sl  local_address rem_address ...", local as "0100580A:0089".
    std::string table = lab_read_file("/proc/" + std::to_string(pid) + "/net/udp");
    size_t pos = table.find('\n');
    while (pos != std::string::npos && pos + 1 < table.size()) {
        size_t end = table.find('\n', pos + 1);
        std::string line = table.substr(pos + 1, end == std::string::npos ? std::string::npos
                                                                          : end - pos - 1);
        size_t colon = line.find(':');
        size_t port_colon = colon == std::string::npos ? colon : line.find(':', colon + 1);
        if (port_colon != std::string::npos &&
            strtoul(line.c_str() + port_colon + 1, nullptr, 16) == port)
            return true;
        pos = end;
    }
    return false;
}

int Lab::udp_socket(LabSide side, uint16_t port, const std::string& addr)
{
    int target = ns_fd(side);
    if (target < 0) {
        error_ = "no such lab namespace";
        return -1;
    }
    int self = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    if (self < 0 || setns(target, CLONE_NEWNET) != 0) {
        error_ = errtext("setns");
        if (self >= 0)
            close(self);
        return -1;
    }
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int saved_errno = errno;
    if (setns(self, CLONE_NEWNET) != 0)
        abort();  // stranded in a lab namespace: stop rather than go on wrongly
    close(self);
    if (fd < 0) {
        errno = saved_errno;
        error_ = errtext("socket");
        return -1;
    }
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in sin {};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(port);
    if (!addr.empty() && inet_pton(AF_INET, addr.c_str(), &sin.sin_addr) != 1) {
        close(fd);
        error_ = "not an IPv4 address: " + addr;
        return -1;
    }
    if (bind(fd, reinterpret_cast<sockaddr*>(&sin), sizeof sin) != 0) {
        error_ = errtext("bind");
        close(fd);
        return -1;
    }
    sockets_.push_back(fd);
    return fd;
}

int Lab::raw_socket(LabSide side)
{
    int target = ns_fd(side);
    if (target < 0) {
        error_ = "no such lab namespace";
        return -1;
    }
    int self = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    if (self < 0 || setns(target, CLONE_NEWNET) != 0) {
        error_ = errtext("setns");
        if (self >= 0)
            close(self);
        return -1;
    }
    int fd = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW);
    int saved_errno = errno;
    if (setns(self, CLONE_NEWNET) != 0)
        abort();  // stranded in a lab namespace: stop rather than go on wrongly
    close(self);
    if (fd < 0) {
        errno = saved_errno;
        error_ = errtext("socket");
        return -1;
    }
    sockets_.push_back(fd);
    return fd;
}

bool Lab::send_raw_udp(int fd, uint32_t from, uint16_t sport, uint32_t to, uint16_t dport,
                       const std::vector<uint8_t>& payload)
{
    // IPv4 header (the kernel fills in the checksum, the total length and
    // the id), then UDP without a checksum (0: none, allowed over IPv4).
    std::vector<uint8_t> p(28 + payload.size());
    p[0] = 0x45;
    p[8] = 64;  // TTL
    p[9] = IPPROTO_UDP;
    memcpy(&p[12], &from, 4);
    memcpy(&p[16], &to, 4);
    size_t ulen = 8 + payload.size();
    p[20] = uint8_t(sport >> 8), p[21] = uint8_t(sport);
    p[22] = uint8_t(dport >> 8), p[23] = uint8_t(dport);
    p[24] = uint8_t(ulen >> 8), p[25] = uint8_t(ulen);
    memcpy(&p[28], payload.data(), payload.size());
    sockaddr_in sin {};
    sin.sin_family = AF_INET;
    sin.sin_addr.s_addr = to;
    return sendto(fd, p.data(), p.size(), 0, reinterpret_cast<sockaddr*>(&sin), sizeof sin) ==
           ssize_t(p.size());
}

bool Lab::send_to(int fd, const std::string& addr, uint16_t port,
                  const std::vector<uint8_t>& bytes)
{
    sockaddr_in to {};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    if (inet_pton(AF_INET, addr.c_str(), &to.sin_addr) != 1) {
        error_ = "not an IPv4 address: " + addr;
        return false;
    }
    ssize_t n = sendto(fd, bytes.data(), bytes.size(), 0,
                       reinterpret_cast<sockaddr*>(&to), sizeof to);
    if (n != ssize_t(bytes.size())) {
        error_ = errtext("sendto");
        return false;
    }
    return true;
}

std::optional<LabDatagram> Lab::recv(int fd, double seconds)
{
    auto deadline = deadline_in(seconds);
    for (int i = 0; i < 1000; ++i) {
        pollfd p {fd, POLLIN, 0};
        int r = poll(&p, 1, ms_left(deadline));
        if (r < 0 && errno == EINTR && !past(deadline))
            continue;
        if (r <= 0)
            return std::nullopt;
        uint8_t buf[2048];
        sockaddr_in from {};
        socklen_t len = sizeof from;
        ssize_t n = recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &len);
        if (n < 0) {
            // An ICMP error from an earlier send; the caller waits for data.
            if (past(deadline))
                return std::nullopt;
            continue;
        }
        LabDatagram d;
        d.bytes.assign(buf, buf + n);
        char text[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &from.sin_addr, text, sizeof text);
        d.from = text;
        d.port = ntohs(from.sin_port);
        return d;
    }
    return std::nullopt;
}

int Lab::run(LabSide side, const std::vector<std::string>& argv, std::string* out, double seconds, int uid,
             int gid)
{
    int target = ns_fd(side);
    if (target < 0 || argv.empty()) {
        error_ = "run: no such lab namespace or no command";
        return -1;
    }
    int pipe_fds[2];
    if (pipe2(pipe_fds, O_CLOEXEC) != 0) {
        error_ = errtext("pipe");
        return -1;
    }
    pid_t pid = spawn(target, argv, pipe_fds[1], uid, gid);
    close(pipe_fds[1]);
    if (pid < 0) {
        close(pipe_fds[0]);
        error_ = errtext("fork");
        return -1;
    }
    auto deadline = deadline_in(seconds);
    std::string text;
    for (int i = 0; i < 100000 && !past(deadline); ++i) {
        pollfd p {pipe_fds[0], POLLIN, 0};
        if (poll(&p, 1, ms_left(deadline)) <= 0)
            continue;
        char buf[4096];
        ssize_t n = read(pipe_fds[0], buf, sizeof buf);
        if (n <= 0)
            break;
        if (text.size() < (1u << 20))
            text.append(buf, size_t(n));
    }
    close(pipe_fds[0]);
    if (out != nullptr)
        *out = text;
    return wait_child(pid, deadline);
}

pid_t Lab::start(LabSide side, const std::vector<std::string>& argv)
{
    int target = ns_fd(side);
    if (target < 0 || argv.empty()) {
        error_ = "start: no such lab namespace or no command";
        return -1;
    }
    pid_t pid = spawn(target, argv, -1, -1, -1);
    if (pid < 0)
        error_ = errtext("fork");
    return pid;
}

void Lab::kill_leftovers()
{
    if (daemon_ns_ < 0)
        return;
    pid_t registered = registered_pid();
    if (alive(registered))
        stop_daemon(registered, 20.0);

    // Anything else still in the lab's namespaces, or re-parented to us (the
    // notifier, a second instance): first asked, then made to end.
    ino_t lab_ns[3] = {netns_inode_of_fd(daemon_ns_), 0, 0};
    for (int s = 0; s < 2; ++s)
        if (station_ns_[s] >= 0)
            lab_ns[s + 1] = netns_inode_of_fd(station_ns_[s]);
    for (int round = 0; round < 2; ++round) {
        std::vector<pid_t> left;
        if (DIR* d = opendir("/proc")) {
            while (dirent* e = readdir(d)) {
                pid_t pid = pid_t(atoi(e->d_name));
                if (pid <= 0 || pid == getpid())
                    continue;
                pid_t ppid = 0;
                char s = proc_state(pid, &ppid);
                if (s == '?' || s == 'Z')
                    continue;
                ino_t ns = netns_inode_of(("/proc/" + std::string(e->d_name) + "/ns/net").c_str());
                bool in_lab = ns != 0 && (ns == lab_ns[0] || ns == lab_ns[1] || ns == lab_ns[2]);
                if (in_lab || ppid == getpid())
                    left.push_back(pid);
            }
            closedir(d);
        }
        if (left.empty())
            break;
        for (pid_t pid : left)
            kill(pid, round == 0 ? SIGTERM : SIGKILL);
        for (pid_t pid : left)
            wait_exit(pid, 10.0);
    }
}

int Lab::halyardctl(const std::vector<std::string>& args, std::string* out, int uid, int gid)
{
    std::vector<std::string> argv{HALYARDCTL_BINARY};
    argv.insert(argv.end(), args.begin(), args.end());
    std::string text;
    int st = run(lab_daemon, argv, &text, 60.0, uid, gid);
    if (out != nullptr)
        *out = text;
    return st != -1 && WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}
