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

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <sstream>

#include <gtest/gtest.h>

#include "tests/support/paths.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* places[] = {"/etc/opt", "/var/opt", "/opt"};
constexpr const char* sanitizer_vars[2] = {"ASAN_OPTIONS", "UBSAN_OPTIONS"};

Clock::time_point deadline_in(double seconds)
{
    return Clock::now() + std::chrono::microseconds(int64_t(seconds * 1e6));
}

int ms_left(Clock::time_point deadline)
{
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left <= 0 ? 0 : int(left);
}

std::string errtext(const std::string& what) { return what + ": " + strerror(errno); }

ino_t inode_of(const std::string& path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

// State letter of /proc/PID/stat and its parent, or '?' when it is gone.
char proc_state(pid_t pid, pid_t* ppid = nullptr)
{
    std::string stat = lab_read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t paren = stat.rfind(')');
    if (paren == std::string::npos || paren + 2 >= stat.size())
        return '?';
    if (ppid != nullptr)
        *ppid = pid_t(atoi(stat.c_str() + paren + 4));
    return stat[paren + 2];
}

bool alive(pid_t pid)
{
    if (pid <= 0 || (kill(pid, 0) != 0 && errno == ESRCH))
        return false;
    char s = proc_state(pid);
    return s != '?' && s != 'Z' && s != 'X';
}

// Runs make() inside network namespace ns (-1: a new one, kept open in
// *new_ns) and comes back; a failure to come back aborts rather than go on
// in the wrong namespace.
int in_netns(int ns, const std::function<int()>& make, int* new_ns = nullptr)
{
    int self = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    if (self < 0)
        return -1;
    int r = -1;
    if (ns >= 0 ? setns(ns, CLONE_NEWNET) == 0 : unshare(CLONE_NEWNET) == 0) {
        if (new_ns != nullptr)
            *new_ns = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
        r = make();
        int saved = errno;
        if (setns(self, CLONE_NEWNET) != 0)
            abort();
        errno = saved;
    }
    close(self);
    return r;
}

// Waits for our child pid; SIGKILL at the deadline. Its wait status, or -1.
int wait_spawned(pid_t pid, Clock::time_point deadline)
{
    int status = 0;
    pid_t r = 0;
    if (lab_wait_for(ms_left(deadline) / 1000.0, [&] { return (r = waitpid(pid, &status, WNOHANG)) != 0; }))
        return r == pid ? status : -1;
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return -1;
}

// Moves the process into its private namespaces (once): "" or why to skip.
std::string lab_enter_private_namespaces()
{
    static bool tried = false;
    static std::string why;
    if (tried)
        return why;
    tried = true;
    if (geteuid() != 0)
        return why = "needs root: the lab creates namespaces, tmpfs mounts and veth links";
    ino_t host_net = inode_of("/proc/self/ns/net");
    if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0)
        return why = "namespaces not permitted here (" + errtext("unshare") + ")";
    // Nothing mounted from here on may propagate back to the host.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return why = "cannot make the private mount namespace private (" + errtext("mount") + ")";
    if (host_net == 0 || inode_of("/proc/self/ns/net") == host_net)
        return why = "did not leave the host network namespace";
    // Orphans (the daemon after its fork) come to us, so their status is seen.
    if (prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0)
        return why = errtext("prctl(PR_SET_CHILD_SUBREAPER)");
    return why;
}

}  // namespace

bool lab_become(int uid, int gid)
{
    if (uid < 0 && gid < 0)
        return true;
    return setgroups(0, nullptr) == 0 && (gid < 0 || setgid(gid_t(gid)) == 0) &&
           (uid < 0 || setuid(uid_t(uid)) == 0) && chdir("/") == 0;
}

std::vector<LabLogGroup> lab_parse_log(const std::string& text)
{
    std::vector<LabLogGroup> groups;
    for (size_t pos = 0; pos < text.size();) {
        size_t end = std::min(text.find("\r\n", pos), text.size());
        std::string line = text.substr(pos, end - pos);
        pos = end + 2;
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
    ssize_t n;
    for (int i = 0; i < 4096 && (n = read(fd, buf, sizeof buf)) > 0; ++i)  // 16 MiB at most
        text.append(buf, size_t(n));
    close(fd);
    return text;
}

bool lab_wait_for(double seconds, const std::function<bool()>& done)
{
    for (auto deadline = deadline_in(seconds); !done(); usleep(20 * 1000))
        if (Clock::now() >= deadline)
            return false;
    return true;
}

pid_t lab_plist_pid(const std::string& plist_text)
{
    size_t at = plist_text.compare(0, 4, "pid ") == 0 ? 0 : plist_text.find("\npid ");
    if (at == std::string::npos)
        return -1;
    long v = strtol(plist_text.c_str() + at + (at == 0 ? 4 : 5), nullptr, 10);
    return v > 0 ? pid_t(v) : -1;
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
    if (daemon_ns_ >= 0 && alive(registered_pid()))
        stop_daemon(registered_pid(), 20.0);
    // Anything else still in the lab's namespaces, or re-parented to us (the
    // notifier, a second instance): first asked, then made to end.
    std::vector<ino_t> lab_ns;
    for (int fd : {daemon_ns_, station_ns_[0], station_ns_[1]})
        if (fd >= 0)
            lab_ns.push_back(inode_of("/proc/self/fd/" + std::to_string(fd)));
    for (int round = 0; round < 2 && daemon_ns_ >= 0; ++round) {
        std::vector<pid_t> left;
        DIR* d = opendir("/proc");
        for (dirent* e; d != nullptr && (e = readdir(d)) != nullptr;) {
            pid_t pid = pid_t(atoi(e->d_name)), ppid = 0;
            char s = pid > 0 && pid != getpid() ? proc_state(pid, &ppid) : '?';
            ino_t ns = s == '?' || s == 'Z' ? 0 : inode_of("/proc/" + std::string(e->d_name) + "/ns/net");
            if (ns != 0 && (ppid == getpid() || std::find(lab_ns.begin(), lab_ns.end(), ns) != lab_ns.end()))
                left.push_back(pid);
        }
        if (d != nullptr)
            closedir(d);
        for (pid_t pid : left)
            kill(pid, round == 0 ? SIGTERM : SIGKILL);
        for (pid_t pid : left)
            wait_exit(pid, 10.0);
    }
    reap();
    // Every process of the lab has ended now, so every report is complete.
    // Only the sanitizers write into that directory, and nothing is mounted there.
    std::string reports = sanitizer_exits_;
    DIR* d = report_dir_.empty() ? nullptr : opendir(report_dir_.c_str());
    for (dirent* e; d != nullptr && (e = readdir(d)) != nullptr;) {
        std::string path = report_dir_ + "/" + e->d_name;
        if (e->d_name[0] == '.')
            continue;
        reports += "--- " + path + "\n" + lab_read_file(path).substr(0, 16384) + "\n";
        unlink(path.c_str());
    }
    if (d != nullptr)
        closedir(d);
    if (!reports.empty())
        ADD_FAILURE() << "sanitizer findings in the lab:\n" << reports;
    if (!report_dir_.empty()) {
        rmdir(report_dir_.c_str());
        for (int i = 0; i < 2; ++i)
            (void)(saved_env_[i] ? setenv(sanitizer_vars[i], saved_env_[i]->c_str(), 1) : unsetenv(sanitizer_vars[i]));
    }
    for (int fd : sockets_)
        close(fd);
    // The namespaces end with their last descriptor; their veths go with them.
    for (int fd : {daemon_ns_, station_ns_[0], station_ns_[1]})
        if (fd >= 0)
            close(fd);
    for (int i = 2; mounted_ && i >= 0; --i)
        umount2(places[i], MNT_DETACH);
    reap();
}

std::string Lab::setup(int stations)
{
    std::string why = lab_enter_private_namespaces();
    if (!why.empty())
        return why;
    if (stations < 1 || stations > 2 || mounted_)
        return "a lab is set up once, with one or two stations";
    const char* tmp = getenv("TMPDIR");
    std::string templ = std::string(tmp != nullptr && tmp[0] == '/' ? tmp : "/tmp") + "/halyard-lab-reports.XXXXXX";
    // A daemon started as another user writes its report here as well.
    if (mkdtemp(templ.data()) == nullptr || chmod(templ.c_str(), 01777) != 0)
        return errtext("a sanitizer report directory");
    report_dir_ = templ;
    // Later options override earlier ones; unsanitized programs ignore both;
    // UBSan's log_path reaches ASan's report path in a build with both.
    for (int i = 0; i < 2; ++i) {
        const char* old = getenv(sanitizer_vars[i]);
        saved_env_[i] = old != nullptr ? std::optional<std::string>(old) : std::nullopt;
        std::string value = saved_env_[i].value_or("") + ":log_path=" + report_dir_ + "/report:exitcode=" +
                            std::to_string(lab_sanitizer_status);
        setenv(sanitizer_vars[i], value.c_str(), 1);
    }
    const char* ip = access("/usr/sbin/ip", X_OK) == 0 ? "/usr/sbin/ip" : "/sbin/ip";
    if (access(ip, X_OK) != 0)
        return "the ip command (iproute2) is not installed";
    // Each lab stacks a tmpfs over the places (never creates them) and takes
    // it away again.
    for (int i = 0; i < 3; ++i) {
        struct stat st {};
        if (stat(places[i], &st) != 0 || !S_ISDIR(st.st_mode) ||
            mount("halyard-lab", places[i], "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755,size=64m") != 0) {
            why = errtext(std::string("a tmpfs over ") + places[i]);
            while (--i >= 0)
                umount2(places[i], MNT_DETACH);
            return why;
        }
    }
    mounted_ = true;
    // The install's directories; the database root must exist before the
    // daemon registers.
    const struct { const char* path; mode_t mode; } dirs[] = {
        {"/etc/opt/KORRbase", 0755}, {"/var/opt/KORRbase", 0755}, {"/var/opt/KORRbase/rtdb", 0775},
        {"/opt/KORRlibs", 0755},     {"/opt/KORRlibs/lib", 0755},
    };
    for (const auto& d : dirs)
        if (mkdir(d.path, d.mode) != 0 || chmod(d.path, d.mode) != 0)
            return errtext(d.path);
    for (int* fd : {&daemon_ns_, &station_ns_[0], &station_ns_[1]})
        if ((fd != &station_ns_[1] || stations == 2) && (in_netns(-1, [] { return 0; }, fd) != 0 || *fd < 0))
            return errtext("a network namespace for the lab");
    stations_ = stations;

    // Every namespace gets its loopback; each station one veth pair.
    std::string out;
    auto ip_in = [&](LabSide side, std::vector<std::string> args) {
        args.insert(args.begin(), ip);
        int st = run(side, args, &out, 30.0);
        error_ = "ip";
        for (size_t i = 1; i < args.size(); ++i)
            error_ += " " + args[i];
        error_ += ": " + lab_describe_status(st) + ": " + out;
        return st == 0;
    };
    if (!ip_in(lab_daemon, {"link", "set", "lo", "up"}))
        return error_;
    for (int s = 1; s <= stations; ++s) {
        LabSide side = LabSide(s);
        std::string d_if = daemon_ifname(s), s_if = s == 2 ? "hs1" : "hs0";
        std::string peer_ns = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(ns_fd(side));
        if (!ip_in(lab_daemon, {"link", "add", "name", d_if, "type", "veth", "peer", "name", s_if, "netns", peer_ns}) ||
            !ip_in(lab_daemon, {"addr", "add", std::string(daemon_addr(s)) + "/24", "brd", "+", "dev", d_if}) ||
            !ip_in(lab_daemon, {"link", "set", d_if, "up"}) || !ip_in(side, {"link", "set", "lo", "up"}) ||
            !ip_in(side, {"addr", "add", std::string(station_addr(s)) + "/24", "brd", "+", "dev", s_if}) ||
            !ip_in(side, {"link", "set", s_if, "up"}))
            return error_;
        // The pair carries traffic once both ends report a carrier.
        if (!lab_wait_for(10.0, [&] {
                return ip_in(lab_daemon, {"-o", "link", "show", "dev", d_if}) &&
                       out.find("LOWER_UP") != std::string::npos &&
                       ip_in(side, {"-o", "link", "show", "dev", s_if}) && out.find("LOWER_UP") != std::string::npos;
            }))
            return "veth " + d_if + " did not come up: " + out;
    }
    error_.clear();
    return "";
}

int Lab::ns_fd(LabSide side) const
{
    return side == lab_daemon ? daemon_ns_ : side == lab_station1 || side == lab_station2 ? station_ns_[side - 1] : -1;
}

std::string Lab::default_config() const
{
    std::string text = "# The daemon's lab interfaces; every port takes its default.\n[realm NB]\ntransport tcpip\n";
    for (int s = 1; s <= (stations_ > 0 ? stations_ : 1); ++s) {
        std::string net = s == 2 ? "10.89.0." : "10.88.0.";
        text += "\n[interface tcpip " + std::string(daemon_ifname(s)) + "]\naddress " + net +
                "1\nnetmask 255.255.255.0\nbroadcast " + net + "255\n";
    }
    return text + "\n[transport tcpip]\n";
}

bool Lab::write_config(const std::string& text)
{
    config_written_ = true;
    return write_file(lab_config_path, text, 0644);
}

bool Lab::write_file(const std::string& path, const std::string& text, mode_t mode)
{
    int fd = mounted_ ? open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode) : -1;
    bool ok = fd >= 0 && fchmod(fd, mode) == 0;
    for (size_t done = 0; ok && done < text.size();) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        ok = n > 0;
        done += ok ? size_t(n) : 0;
    }
    ok = fd >= 0 && close(fd) == 0 && ok;
    if (!ok)
        error_ = mounted_ ? errtext(path) : "write_file before setup";
    return ok;
}

int Lab::launch(const std::vector<std::string>& args, double seconds, int uid, int gid, const char* binary)
{
    std::vector<std::string> argv{binary != nullptr ? binary : halyard_binary()};
    argv.insert(argv.end(), args.begin(), args.end());
    pid_t pid = spawn_as(lab_daemon, argv, -1, uid, gid);
    if (pid < 0)
        return -1;
    int st = wait_spawned(pid, deadline_in(seconds));
    if (st == -1)
        error_ = "the launching process did not end within " + std::to_string(seconds) + " s";
    return st;
}

pid_t Lab::registered_pid() const { return lab_plist_pid(lab_read_file(lab_plist_path)); }

pid_t Lab::wait_registered(double seconds) const
{
    pid_t pid = -1;
    return lab_wait_for(seconds, [&] { return alive(pid = registered_pid()); }) ? pid : -1;
}

pid_t Lab::start_daemon(const std::vector<std::string>& args, double seconds)
{
    if (!config_written_ && !write_config(default_config()))
        return -1;
    int st = launch(args, seconds);
    if (st == -1)
        return -1;
    if (st != 0)
        return error_ = "the launching process " + lab_describe_status(st), -1;
    pid_t pid = wait_registered(seconds);
    if (pid < 0)
        error_ = "no live process registered within " + std::to_string(seconds) + " s; registration: \"" +
                 lab_read_file(lab_plist_path) + "\"; log:\n" + log();
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
        if (WIFEXITED(status) && WEXITSTATUS(status) == lab_sanitizer_status)
            sanitizer_exits_ += "process " + std::to_string(r) + " exited with status " +
                                std::to_string(lab_sanitizer_status) + " (a sanitizer's finding)\n";
        exits_.emplace_back(r, status);
    }
}

bool Lab::wait_exit(pid_t pid, double seconds, int* wstatus, pid_t* which)
{
    std::pair<pid_t, int> found{-1, -1};
    bool ended = lab_wait_for(seconds, [&] {
        reap();
        for (auto it = exits_.begin(); it != exits_.end(); ++it) {
            if (pid == -1 || it->first == pid) {
                found = *it;
                exits_.erase(it);
                return true;
            }
        }
        // Not our child: gone is all that can be seen.
        pid_t ppid = 0;
        char s = pid > 0 ? proc_state(pid, &ppid) : '?';
        found = {pid, -1};
        return pid > 0 && !(s != '?' && ppid == getpid()) && !alive(pid);
    });
    if (ended && wstatus != nullptr)
        *wstatus = found.second;
    if (ended && which != nullptr)
        *which = found.first;
    return ended;
}

bool Lab::wait_log(const std::string& text, double seconds) const
{
    return lab_wait_for(seconds, [&] { return log().find(text) != std::string::npos; });
}

std::string Lab::trace(const std::string& name) const { return lab_read_file(std::string(lab_home) + "/" + name); }

bool Lab::wait_trace(const std::string& text, const std::string& name, double seconds) const
{
    return lab_wait_for(seconds, [&] { return trace(name).find(text) != std::string::npos; });
}

std::string Lab::ens_table()
{
    size_t before = trace().size(), at = 0, end = 0;
    std::string t;
    if (halyardctl({"enstable"}) != 0 || !lab_wait_for(20.0, [&] {
            t = trace();
            at = t.rfind("\nENS table --\n");
            return at != std::string::npos && at + 1 >= before && (end = t.find("\n\n", at + 13)) != std::string::npos;
        }))
        return "";
    std::string squeezed = "\n";
    for (char c : end > at + 14 ? t.substr(at + 14, end - at - 14) : "")
        if (c != ' ' && c != '\t')
            squeezed += c;
        else if (squeezed.back() != ' ' && squeezed.back() != '\n')
            squeezed += ' ';
    return squeezed.size() > 1 ? squeezed + "\n" : squeezed;
}

bool Lab::udp_port_bound(pid_t pid, uint16_t port)
{
    // After the heading, one line per socket, the local address as "0100580A:0089".
    std::istringstream table(lab_read_file("/proc/" + std::to_string(pid) + "/net/udp"));
    unsigned addr = 0, local = 0;
    for (std::string line; std::getline(table, line);)
        if (sscanf(line.c_str(), " %*u: %x:%x", &addr, &local) == 2 && local == port)
            return true;
    return false;
}

int Lab::udp_socket(LabSide side, uint16_t port, const std::string& addr)
{
    sockaddr_in sin {AF_INET, htons(port), {}, {}};
    if (!addr.empty() && inet_pton(AF_INET, addr.c_str(), &sin.sin_addr) != 1)
        return error_ = "not an IPv4 address: " + addr, -1;
    int fd = ns_fd(side) < 0 ? -1 : in_netns(ns_fd(side), [] { return socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); });
    int on = 1;
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0 ||
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(fd, reinterpret_cast<sockaddr*>(&sin), sizeof sin) != 0) {
        error_ = errtext("a UDP socket in the lab");
        if (fd >= 0)
            close(fd);
        return -1;
    }
    sockets_.push_back(fd);
    return fd;
}

int Lab::raw_socket(LabSide side)
{
    int fd = ns_fd(side) < 0 ? -1 : in_netns(ns_fd(side), [] { return socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW); });
    if (fd < 0)
        error_ = errtext("a raw socket in the lab");
    else
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
    sockaddr_in sin {AF_INET, 0, {to}, {}};
    return sendto(fd, p.data(), p.size(), 0, reinterpret_cast<sockaddr*>(&sin), sizeof sin) == ssize_t(p.size());
}

bool Lab::send_to(int fd, const std::string& addr, uint16_t port, const std::vector<uint8_t>& bytes)
{
    sockaddr_in to {AF_INET, htons(port), {}, {}};
    if (inet_pton(AF_INET, addr.c_str(), &to.sin_addr) != 1)
        return error_ = "not an IPv4 address: " + addr, false;
    if (sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) == ssize_t(bytes.size()))
        return true;
    return error_ = errtext("sendto"), false;
}

std::optional<LabDatagram> Lab::recv(int fd, double seconds)
{
    auto deadline = deadline_in(seconds);
    for (int i = 0; i < 1000; ++i) {
        pollfd p {fd, POLLIN, 0};
        int r = poll(&p, 1, ms_left(deadline));
        if (r < 0 && errno == EINTR && Clock::now() < deadline)
            continue;
        if (r <= 0)
            return std::nullopt;
        uint8_t buf[2048];
        sockaddr_in from {};
        socklen_t len = sizeof from;
        ssize_t n = recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &len);
        if (n < 0)  // an ICMP error from an earlier send; wait on for data
            continue;
        char text[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &from.sin_addr, text, sizeof text);
        return LabDatagram{std::vector<uint8_t>(buf, buf + n), text, ntohs(from.sin_port)};
    }
    return std::nullopt;
}

std::vector<LabDatagram> Lab::collect(int fd, size_t count, double seconds,
                                      const std::function<bool(const std::vector<uint8_t>&)>& want)
{
    std::vector<LabDatagram> got;
    auto deadline = deadline_in(seconds);
    for (int i = 0; i < 10000 && got.size() < count; ++i) {
        auto d = recv(fd, std::chrono::duration<double>(deadline - Clock::now()).count());
        if (!d)
            break;
        if (want(d->bytes))
            got.push_back(*d);
    }
    return got;
}

int Lab::run(LabSide side, const std::vector<std::string>& argv, std::string* out, double seconds, int uid, int gid)
{
    int pipe_fds[2] = {-1, -1};
    if (pipe2(pipe_fds, O_CLOEXEC) != 0)
        return error_ = errtext("run: a pipe"), -1;
    pid_t pid = spawn_as(side, argv, pipe_fds[1], uid, gid);
    close(pipe_fds[1]);
    auto deadline = deadline_in(seconds);
    std::string text;
    for (int i = 0; pid > 0 && i < 100000 && Clock::now() < deadline; ++i) {
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
    return pid < 0 ? -1 : wait_spawned(pid, deadline);
}

pid_t Lab::start(LabSide side, const std::vector<std::string>& argv) { return spawn_as(side, argv, -1, -1, -1); }

pid_t Lab::spawn_as(LabSide side, const std::vector<std::string>& args, int out_fd, int uid, int gid)
{
    if (ns_fd(side) < 0 || args.empty())
        return error_ = "no such lab namespace (before setup?), or no command", -1;
    // Another user gets a copy of a program of the build: the checkout may sit
    // below a folder closed to them (root's home). A test that cannot run it
    // as that user fails, saying why.
    auto fail = [&](const std::string& why) {
        ADD_FAILURE() << (error_ = why);
        return -1;
    };
    std::string path = args[0], build = std::string(halyard_build_dir()) + "/";
    if ((uid >= 0 || gid >= 0) && path.starts_with(build)) {
        const char* dir = "/opt/lab-programs";
        if (!programs_mounted_ && (mkdir(dir, 0755) != 0 ||
                                   mount("halyard-lab", dir, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755,size=512m") != 0))
            return fail(errtext(std::string("a tmpfs at ") + dir + " for programs run as another user"));
        programs_mounted_ = true;
        path = dir + path.substr(path.rfind('/'));
        std::error_code ec;
        if (access(path.c_str(), X_OK) != 0 &&
            (!std::filesystem::copy_file(args[0], path, ec) || chmod(path.c_str(), 0755) != 0))
            return fail("cannot copy " + args[0] + " to " + path + " for another user: " +
                        (ec ? ec.message() : strerror(errno)));
    }
    std::vector<char*> argv;
    for (const std::string& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::string failed = "lab: cannot execute " + path + (uid >= 0 ? " as uid " + std::to_string(uid) : "") + "\n";
    int ns = ns_fd(side);
    pid_t pid = fork();
    if (pid < 0)
        error_ = errtext("fork");
    if (pid != 0)
        return pid;
    // Only async-signal-safe calls from here to exec.
    if (setns(ns, CLONE_NEWNET) != 0)
        _exit(126);
    int devnull = open("/dev/null", O_RDWR);
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
    if (!lab_become(uid, gid))
        _exit(125);
    execv(path.c_str(), argv.data());
    ssize_t w = write(2, failed.data(), failed.size());  // what 127 means, in the output
    (void)w;
    _exit(127);
}

int Lab::halyardctl(const std::vector<std::string>& args, std::string* out, int uid, int gid)
{
    std::vector<std::string> argv{HALYARDCTL_BINARY};
    argv.insert(argv.end(), args.begin(), args.end());
    int st = run(lab_daemon, argv, out, 60.0, uid, gid);
    return st != -1 && WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

std::map<std::string, uint64_t> lab_counters(const std::string& out, const char* prefix)
{
    std::map<std::string, uint64_t> got;
    std::string pre = prefix != nullptr ? prefix : "", line, help, type;
    std::istringstream in(out);
    for (uint64_t n = 1; std::getline(in, line); n++) {
        char name[64];
        unsigned long long v = 0;
        int end = 0;
        if (prefix != nullptr && line.starts_with("# HELP ")) {
            help = line.substr(7, line.find(' ', 7) - 7);
        } else if (prefix != nullptr && line.starts_with("# TYPE ")) {
            type = line.substr(7);
        } else if (sscanf(line.c_str(), "%63[a-z0-9_] %llu%n", name, &v, &end) == 2 &&
                   (prefix != nullptr ? size_t(end) == line.size() && help == name && type == help + " counter" &&
                                            help.starts_with(pre) && help.ends_with("_total")
                                      : size_t(end) == line.size() || line[size_t(end)] == ' ')) {
            std::string key = name;
            got[prefix != nullptr ? key.substr(pre.size(), key.size() - pre.size() - 6) : key] = v;
        } else {
            return {{"malformed", n}};
        }
    }
    return got;
}
