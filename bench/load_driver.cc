// load_driver: the load of bench/load.sh against a running `larkpostctl
// serve`. Clients browse, change, compose, upload and download through the
// web server while deliveries arrive, imports, fetches and filter tasks run;
// with --faults, request processes, the background service and the
// preloaded host are killed and the disk is made full for a moment, every
// few seconds. Then every acknowledged message must be in its store exactly
// once. Prints the figures; exits 1 when anything was lost, doubled or (with
// no faults) failed.
//
//   load_driver ROOT BIN URL SERVER_PID POP3_PORT POP3_COUNT USERS CLIENTS SECONDS RATE [--faults]
#include <curl/curl.h>
#include <dirent.h>
#include <fcntl.h>
#include <json/json.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Form = std::vector<std::pair<std::string, std::string>>;

struct Options {
  std::string root, bin, url;
  pid_t server = 0;
  int pop3_port = 0, pop3_count = 0, users = 0, clients = 0, seconds = 0, rate = 0;
  bool faults = false;
};
Options g;

// A small PNG: delivered mail carries it, so that downloads and previews
// have something to convert and pack.
constexpr char kPng[] =
    "iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mNk+"
    "M9QDwADhgGAWjR9awAAAABJRU5ErkJggg==";
constexpr rlim_t kFullDisk = 64 * 1024;  // bytes a process may still write into a file

// How a call ended: answered as asked, a clean error (an HTTP error status or
// a JSON error), or broken (no answer, a cut answer, a 200 that is no JSON).
enum Outcome { kOk, kError, kBroken };

struct Stats {
  std::mutex mutex;
  std::map<std::string, std::vector<double>> times;  // ms, successful calls
  std::map<std::string, std::array<int, 3>> outcomes;
  void Add(const std::string& call, Outcome outcome, double ms) {
    std::lock_guard<std::mutex> lock(mutex);
    outcomes[call][outcome]++;
    if (outcome == kOk) times[call].push_back(ms);
  }
};
Stats g_stats;
std::atomic<bool> g_running{true}, g_disk_full{false};
std::mutex g_log_mutex;

void Note(const std::string& text) {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  std::fprintf(stderr, "load: %s\n", text.c_str());
}

size_t Append(char* data, size_t size, size_t count, void* out) {
  static_cast<std::string*>(out)->append(data, size * count);
  return size * count;
}

struct Answer {
  Outcome outcome = kBroken;
  Json::Value json;
  std::string body;
};

// One HTTP client (a kept connection).
class Http {
 public:
  Http() : curl_(curl_easy_init()) {}
  ~Http() { curl_easy_cleanup(curl_); }

  // POSTs `form` (or a multipart upload of `file_name` with `file`).
  Answer Post(const std::string& path, const std::string& stat, const Form& form, bool json = true,
              const std::string& file_name = "", const std::string& file = "") {
    curl_easy_reset(curl_);
    std::string body, data;
    curl_mime* mime = nullptr;
    if (file_name.empty()) {
      for (const auto& [key, value] : form) {
        char* escaped = curl_easy_escape(curl_, value.data(), static_cast<int>(value.size()));
        data += (data.empty() ? "" : "&") + key + "=" + escaped;
        curl_free(escaped);
      }
      curl_easy_setopt(curl_, CURLOPT_POSTFIELDS, data.c_str());
    } else {
      mime = curl_mime_init(curl_);
      for (const auto& [key, value] : form) {
        curl_mimepart* part = curl_mime_addpart(mime);
        curl_mime_name(part, key.c_str());
        curl_mime_data(part, value.data(), value.size());
      }
      curl_mimepart* part = curl_mime_addpart(mime);
      curl_mime_name(part, "upload");
      curl_mime_filename(part, file_name.c_str());
      curl_mime_data(part, file.data(), file.size());
      curl_easy_setopt(curl_, CURLOPT_MIMEPOST, mime);
    }
    const std::string url = g.url + path;
    curl_easy_setopt(curl_, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, Append);
    curl_easy_setopt(curl_, CURLOPT_WRITEDATA, &body);
    curl_easy_setopt(curl_, CURLOPT_TIMEOUT, 180L);
    const auto start = Clock::now();
    const CURLcode code = curl_easy_perform(curl_);
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    long status = 0;
    curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &status);
    if (mime != nullptr) curl_mime_free(mime);
    Answer answer;
    answer.body = body;
    if (code != CURLE_OK || status == 0) {
      answer.outcome = kBroken;
    } else if (status != 200) {
      answer.outcome = kError;
    } else if (!json) {
      answer.outcome = body.empty() ? kBroken : kOk;
    } else {
      Json::CharReaderBuilder builder;
      std::string errors;
      std::istringstream in(body);
      if (!Json::parseFromStream(builder, in, &answer.json, &errors) || !answer.json.isObject()) {
        answer.outcome = kBroken;
      } else {
        answer.outcome = answer.json["success"].asBool() ? kOk : kError;
      }
    }
    if (!stat.empty()) g_stats.Add(stat, answer.outcome, ms);
    if (answer.outcome == kBroken || (answer.outcome == kError && !g.faults)) {
      Note(stat + ": failed (curl " + std::to_string(code) + ", HTTP " + std::to_string(status) +
           "): " + body.substr(0, 200));
    }
    return answer;
  }

 private:
  CURL* curl_;
};

struct User {
  std::string name, sid, token;
  int label = 0;
  std::mutex mutex;
  std::vector<int> messages, threads;            // seen in lists
  std::vector<std::pair<int, int>> attachments;  // message id, attachment id
};
std::vector<User> g_users;

Answer Api(Http& http, const User& user, const std::string& api, const std::string& method,
           Form form, bool json = true, const std::string& file_name = "",
           const std::string& file = "") {
  std::string path = "/entry.cgi";
  if (!file_name.empty()) {
    // An upload names the call in its address, as the web client does.
    path += "?api=" + api + "&version=1&method=" + method + "&_sid=" + user.sid +
            "&_token=" + user.token;
  } else {
    form.insert(form.begin(),
                {{"api", api}, {"version", "1"}, {"method", method}, {"_sid", user.sid}});
  }
  std::string stat = method;
  if (api == "ZEVO.Larkpost.Thread" && method == "list") {
    stat = "thread list";
    for (const auto& [key, value] : form) {
      if (key == "condition" && value.find("keyword") != std::string::npos) stat = "search";
    }
  }
  return http.Post(path, stat, form, json, file_name, file);
}

// Runs a program of the build with `input` on its standard input; with the
// disk full, it may write no file beyond kFullDisk. Its exit status, or -1.
int Run(std::vector<std::string> args, const std::string& input, bool disk_full,
        std::string* out = nullptr) {
  args[0] = g.bin + "/" + args[0];
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  int in[2], output[2];
  if (pipe2(in, O_CLOEXEC) != 0) return -1;
  if (pipe2(output, O_CLOEXEC) != 0) return -1;
  const pid_t child = fork();
  if (child == 0) {
    dup2(in[0], 0);
    dup2(output[1], 1);
    if (disk_full) {
      // What it says about the full disk is expected; it shows in the figures.
      const int null = open("/dev/null", O_WRONLY);
      dup2(null, 2);
      const rlimit limit{kFullDisk, kFullDisk};
      setrlimit(RLIMIT_FSIZE, &limit);
    }
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(in[0]);
  close(output[1]);
  size_t done = 0;
  while (done < input.size()) {
    const ssize_t n = write(in[1], input.data() + done, input.size() - done);
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  close(in[1]);
  char buffer[4096];
  for (ssize_t n; (n = read(output[0], buffer, sizeof buffer)) > 0;) {
    if (out != nullptr) out->append(buffer, static_cast<size_t>(n));
  }
  close(output[0]);
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) < 0) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Message-IDs handed to deliver and import, with whether it was acknowledged.
struct Handed {
  std::string user, id;
  bool acknowledged;
};
std::mutex g_handed_mutex;
std::vector<Handed> g_handed;

std::string Message(const std::string& id, const std::string& user, int n) {
  std::string text = "From: Dana <dana@example.org>\nTo: " + user + "@localdomain\nSubject: Load " +
                     std::to_string(n) + " report\nMessage-ID: <" + id + ">\nMIME-Version: 1.0\n";
  const std::string body = "Figures for week " + std::to_string(n % 52) + " look steady.\n";
  if (n % 3 != 0) return text + "Content-Type: text/plain\n\n" + body;
  return text + "Content-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: text/plain\n\n" +
         body + "--b\nContent-Type: image/png; name=\"chart.png\"\nContent-Disposition: " +
         "attachment; filename=\"chart.png\"\nContent-Transfer-Encoding: base64\n\n" + kPng +
         "\n--b--\n";
}

std::atomic<int> g_serial{0};

// One delivery to a random user; with the disk full, expected to fail.
void Deliver(std::mt19937& random, bool disk_full, const std::string& stat) {
  const int n = ++g_serial;
  const std::string user = g_users[random() % g_users.size()].name;
  const std::string id = "load-" + std::to_string(n) + "@load.example";
  const auto start = Clock::now();
  const int status =
      Run({"larkpostctl", "--root", g.root, "deliver", user}, Message(id, user, n), disk_full);
  g_stats.Add(stat,
              status == 0  ? kOk
              : status > 0 ? kError
                           : kBroken,
              std::chrono::duration<double, std::milli>(Clock::now() - start).count());
  std::lock_guard<std::mutex> lock(g_handed_mutex);
  g_handed.push_back({user, id, status == 0});
}

// An mbox of five messages into a random user's store.
void Import(std::mt19937& random, bool disk_full, const std::string& stat) {
  const std::string user = g_users[random() % g_users.size()].name;
  const std::string path = g.root + "/import-" + std::to_string(++g_serial) + ".mbox";
  std::vector<std::string> ids;
  {
    std::ofstream mbox(path);
    for (int i = 0; i < 5; ++i) {
      const int n = ++g_serial;
      ids.push_back("import-" + std::to_string(n) + "@load.example");
      mbox << "From dana@example.org Mon Jan  1 00:00:00 2024\n"
           << Message(ids.back(), user, n) << "\n";
    }
  }
  const auto start = Clock::now();
  const int status = Run({"larkpostctl", "--root", g.root, "import", user, path}, "", disk_full);
  g_stats.Add(stat,
              status == 0  ? kOk
              : status > 0 ? kError
                           : kBroken,
              std::chrono::duration<double, std::milli>(Clock::now() - start).count());
  unlink(path.c_str());
  std::lock_guard<std::mutex> lock(g_handed_mutex);
  for (const std::string& id : ids) g_handed.push_back({user, id, status == 0});
}

void Fetch(std::mt19937& random, bool disk_full, const std::string& stat) {
  const std::string user = g_users[random() % g_users.size()].name;
  const auto start = Clock::now();
  const int status = Run({"larkpostctl", "--root", g.root, "fetch", user}, "", disk_full);
  g_stats.Add(stat,
              status == 0  ? kOk
              : status > 0 ? kError
                           : kBroken,
              std::chrono::duration<double, std::milli>(Clock::now() - start).count());
}

// Deliveries at g.rate a second, spread over a few workers.
void Deliveries() {
  std::atomic<long> next{0};
  const auto start = Clock::now();
  std::vector<std::thread> workers;
  for (int w = 0; w < 16; ++w) {
    workers.emplace_back([&, w] {
      std::mt19937 random(1000 + w);
      while (g_running) {
        const long n = next++;
        std::this_thread::sleep_until(start + std::chrono::microseconds(n * 1000000 / g.rate));
        if (!g_running) break;
        const bool full = g_disk_full;
        Deliver(random, full, full ? "deliver, disk full" : "deliver");
      }
    });
  }
  for (std::thread& worker : workers) worker.join();
}

int Pick(std::mt19937& random, const std::vector<int>& from) {
  return from.empty() ? 0 : from[random() % from.size()];
}

void Remember(User& user, const Json::Value& threads) {
  std::lock_guard<std::mutex> lock(user.mutex);
  for (const Json::Value& thread : threads) {
    if (user.threads.size() < 500) user.threads.push_back(thread["id"].asInt());
    for (const Json::Value& message : thread["message"]) {
      if (user.messages.size() < 500) user.messages.push_back(message["id"].asInt());
    }
  }
}

// One client: a user's session after another, a call of the mix at a time.
void Client(int number) {
  std::mt19937 random(number);
  Http http;
  const char* const words[] = {"figures", "steady", "report", "quarterly", "week"};
  while (g_running) {
    User& user = g_users[random() % g_users.size()];
    std::vector<int> messages, threads;
    std::vector<std::pair<int, int>> attachments;
    {
      std::lock_guard<std::mutex> lock(user.mutex);
      messages = user.messages;
      threads = user.threads;
      attachments = user.attachments;
    }
    const int dice = static_cast<int>(random() % 100);
    const std::string message = "[" + std::to_string(Pick(random, messages)) + "]";
    if (dice < 25 || messages.empty()) {
      const int mailbox = random() % 4 == 0 ? 4 : 1;
      Answer a =
          Api(http, user, "ZEVO.Larkpost.Thread", "list",
              {{"condition", R"([{"name":"mailbox","value":")" + std::to_string(mailbox) + "\"}]"},
               {"offset", std::to_string(random() % 3 * 25)},
               {"limit", "25"}});
      if (a.outcome == kOk) Remember(user, a.json["data"]["thread"]);
    } else if (dice < 33) {
      Answer a = Api(http, user, "ZEVO.Larkpost.Thread", "list",
                     {{"condition", std::string(R"([{"name":"keyword","value":")") +
                                        words[random() % 5] + "\"}]"},
                      {"limit", "25"}});
      (void)a;
    } else if (dice < 53) {
      Answer a = Api(http, user, "ZEVO.Larkpost.Message", "get", {{"id", message}});
      if (a.outcome == kOk) {
        std::lock_guard<std::mutex> lock(user.mutex);
        for (const Json::Value& m : a.json["data"]["message"]) {
          for (const Json::Value& part : m["attachment"]) {
            if (user.attachments.size() < 200) {
              user.attachments.push_back({m["id"].asInt(), part["id"].asInt()});
            }
          }
        }
      }
    } else if (dice < 68) {
      switch (random() % 4) {
        case 0:
          Api(http, user, "ZEVO.Larkpost.Message", "set_read",
              {{"id", message}, {"read", random() % 2 ? "true" : "false"}});
          break;
        case 1:
          Api(http, user, "ZEVO.Larkpost.Message", "set_star",
              {{"id", message}, {"star", std::to_string(random() % 2)}});
          break;
        case 2:
          Api(http, user, "ZEVO.Larkpost.Message", "set_mailbox",
              {{"id", message}, {"mailbox_id", random() % 2 ? "1" : "4"}});
          break;
        default:
          Api(http, user, "ZEVO.Larkpost.Thread", "add_label",
              {{"id", "[" + std::to_string(Pick(random, threads)) + "]"},
               {"label_id", "[" + std::to_string(user.label) + "]"}});
      }
    } else if (dice < 84) {
      // A draft, written, changed and (mostly) sent; sometimes with an upload.
      std::string temp = "[]";
      if (random() % 2) {
        Answer up = Api(http, user, "ZEVO.Larkpost.Attachment", "upload", {{"is_inline", "false"}},
                        true, "notes.txt", std::string(2048 + random() % 8192, 'n'));
        if (up.outcome != kOk) continue;
        temp = "[" + up.json["data"]["id"].asString() + "]";
      }
      Answer draft = Api(http, user, "ZEVO.Larkpost.Draft", "create",
                         {{"from", "\"" + user.name + "@localdomain\""},
                          {"to", R"(["Bob <bob@example.org>"])"},
                          {"subject", "\"Figures\""},
                          {"body", "\"<p>See the figures.</p>\""},
                          {"temp_attachment", temp}});
      if (draft.outcome != kOk) continue;
      const std::string id = draft.json["data"]["id"].asString();
      if (Api(http, user, "ZEVO.Larkpost.Draft", "set",
              {{"id", id}, {"subject", "\"Figures, revised\""}})
              .outcome != kOk) {
        continue;
      }
      if (random() % 4 != 0) Api(http, user, "ZEVO.Larkpost.Draft", "send", {{"id", id}});
    } else {
      if (attachments.empty()) continue;
      const auto [owner, attachment] = attachments[random() % attachments.size()];
      const int kind = static_cast<int>(random() % 3);
      Answer a = kind == 2 ? Api(http, user, "ZEVO.Larkpost.Attachment", "download_all",
                                 {{"id", std::to_string(owner)}}, false)
                           : Api(http, user, "ZEVO.Larkpost.Attachment", "download",
                                 {{"id", std::to_string(attachment)},
                                  {"type", kind == 0 ? "download" : "thumb"}},
                                 false);
      (void)a;
    }
  }
}

// Every few seconds: an import, a fetch and a filter task, so that each runs
// throughout (and, with faults, meets a full disk now and then).
void Background() {
  std::mt19937 random(7);
  Http http;
  int round = 0;
  while (g_running) {
    std::this_thread::sleep_for(std::chrono::seconds(2));
    if (!g_running) break;
    ++round;
    const bool full = g_disk_full;
    if (round % 2 == 0) Import(random, full, full ? "import, disk full" : "import");
    if (round % 2 == 1) Fetch(random, full, full ? "fetch, disk full" : "fetch");
    const User& user = g_users[random() % g_users.size()];
    Api(http, user, "ZEVO.Larkpost.Filter", "add_task",
        {{"condition", R"([{"name":"from","value":"carol"}])"},
         {"action", R"([{"name":"set_read","value":"true"}])"}});
  }
}

// The processes below the web server: pid, parent, name, command line.
struct Process {
  pid_t pid, parent;
  std::string name, command;
};

std::vector<Process> Below(pid_t top) {
  std::vector<Process> all;
  DIR* proc = opendir("/proc");
  while (const dirent* entry = readdir(proc)) {
    const pid_t pid = std::atoi(entry->d_name);
    if (pid <= 0) continue;
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line) || line.rfind(')') == std::string::npos) continue;
    Process process{pid, 0, line.substr(line.find('(') + 1, line.rfind(')') - line.find('(') - 1),
                    ""};
    std::istringstream rest(line.substr(line.rfind(')') + 2));
    std::string state;
    rest >> state >> process.parent;
    std::ifstream cmdline("/proc/" + std::to_string(pid) + "/cmdline");
    std::getline(cmdline, process.command, '\n');
    std::replace(process.command.begin(), process.command.end(), '\0', ' ');
    all.push_back(process);
  }
  closedir(proc);
  std::vector<Process> below;
  std::set<pid_t> known{top};
  for (bool grew = true; grew;) {
    grew = false;
    for (const Process& process : all) {
      if (known.count(process.parent) && !known.count(process.pid)) {
        known.insert(process.pid);
        below.push_back(process);
        grew = true;
      }
    }
  }
  return below;
}

bool IsHost(const Process& p) {
  return p.name == "larkpost-cgi" && p.command.find(" serve ") != std::string::npos;
}
bool IsService(const Process& p) { return p.name.rfind("larkpost-serv", 0) == 0; }
bool IsRequest(const Process& p) { return p.name == "larkpost-cgi" && !IsHost(p); }

std::map<std::string, int> g_faults;

void Kill(const char* what, bool (*pick)(const Process&)) {
  for (int tries = 0; tries < 20; ++tries) {
    std::vector<Process> found;
    for (const Process& p : Below(g.server)) {
      if (pick(p)) found.push_back(p);
    }
    if (!found.empty()) {
      kill(found[static_cast<size_t>(std::rand()) % found.size()].pid, SIGKILL);
      g_faults[what]++;
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

// The disk full for a moment for the web server, the preloaded host and the
// service (so for the requests and tasks they start meanwhile) and for the
// deliveries, an import and a fetch started meanwhile.
void FullDisk(std::mt19937& random) {
  std::vector<pid_t> pids{g.server};
  for (const Process& p : Below(g.server)) {
    if (IsHost(p) || IsService(p)) pids.push_back(p.pid);
  }
  const rlimit full{kFullDisk, RLIM_INFINITY}, room{RLIM_INFINITY, RLIM_INFINITY};
  for (pid_t pid : pids) prlimit(pid, RLIMIT_FSIZE, &full, nullptr);
  g_disk_full = true;
  g_faults["disk full"]++;
  Http http;
  const User& user = g_users[random() % g_users.size()];
  Deliver(random, true, "deliver, disk full");
  Import(random, true, "import, disk full");
  Fetch(random, true, "fetch, disk full");
  const Answer up = http.Post(
      "/entry.cgi?api=ZEVO.Larkpost.Attachment&version=1&method=upload&_sid=" + user.sid +
          "&_token=" + user.token,
      "upload, disk full", {{"is_inline", "false"}}, true, "big.txt", std::string(256 * 1024, 'b'));
  Form draft{{"api", "ZEVO.Larkpost.Draft"},
             {"version", "1"},
             {"method", "create"},
             {"_sid", user.sid},
             {"to", R"(["Bob <bob@example.org>"])"},
             {"subject", "\"Full\""},
             {"body", "\"" + std::string(128 * 1024, 'f') + "\""}};
  const Answer created = http.Post("/entry.cgi", "draft create, disk full", draft);
  if (created.outcome == kOk) {
    http.Post("/entry.cgi", "send, disk full",
              {{"api", "ZEVO.Larkpost.Draft"},
               {"version", "1"},
               {"method", "send"},
               {"_sid", user.sid},
               {"id", created.json["data"]["id"].asString()}});
  }
  http.Post("/entry.cgi", "add_task, disk full",
            {{"api", "ZEVO.Larkpost.Filter"},
             {"version", "1"},
             {"method", "add_task"},
             {"_sid", user.sid},
             {"condition", R"([{"name":"from","value":"dana"}])"},
             {"action", R"([{"name":"set_read","value":"true"}])"}});
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  g_disk_full = false;
  for (pid_t pid : pids) prlimit(pid, RLIMIT_FSIZE, &room, nullptr);
  (void)up;
}

void Faults() {
  std::mt19937 random(11);
  const int period = g.seconds >= 30 ? 3 : 2;
  for (int round = 0; g_running; ++round) {
    std::this_thread::sleep_for(std::chrono::seconds(period));
    if (!g_running) break;
    switch (round % 4) {
      case 0:
        Kill("request process killed", IsRequest);
        break;
      case 1:
        Kill("background service killed", IsService);
        break;
      case 2:
        FullDisk(random);
        break;
      default:
        // Nothing starts the preloaded host again: entry.cgi runs the host
        // itself from then on. Once, a third of the way, so both ways are
        // measured.
        if (round * period >= g.seconds / 3 && !g_faults.count("preloaded host killed")) {
          Kill("preloaded host killed", IsHost);
        } else {
          Kill("request process killed", IsRequest);
        }
    }
  }
}

double Percentile(std::vector<double>& values, double p) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, static_cast<size_t>(p * (values.size() - 1) + 0.5))];
}

// Message-ID -> copies in the user's store.
std::map<std::string, int> Copies(const std::string& number) {
  std::map<std::string, int> copies;
  sqlite3* db = nullptr;
  if (sqlite3_open_v2((g.root + "/mail/" + number + "/larkpost.db").c_str(), &db,
                      SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_busy_timeout(db, 10000);
    sqlite3_stmt* rows = nullptr;
    sqlite3_prepare_v2(db, "SELECT rfc_message_id FROM message", -1, &rows, nullptr);
    while (sqlite3_step(rows) == SQLITE_ROW) {
      std::string id = reinterpret_cast<const char*>(sqlite3_column_text(rows, 0));
      if (!id.empty() && id.front() == '<') id = id.substr(1, id.size() - 2);
      copies[id]++;
    }
    sqlite3_finalize(rows);
  }
  sqlite3_close(db);
  return copies;
}

Json::Value Parse(const std::string& body) {
  Json::Value value;
  std::istringstream in(body);
  Json::CharReaderBuilder builder;
  std::string errors;
  Json::parseFromStream(builder, in, &value, &errors);
  return value;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 11) {
    std::fprintf(stderr,
                 "usage: load_driver ROOT BIN URL SERVER_PID POP3_PORT POP3_COUNT USERS CLIENTS "
                 "SECONDS RATE [--faults]\n");
    return 2;
  }
  g = {argv[1],
       argv[2],
       argv[3],
       std::atoi(argv[4]),
       std::atoi(argv[5]),
       std::atoi(argv[6]),
       std::atoi(argv[7]),
       std::atoi(argv[8]),
       std::atoi(argv[9]),
       std::atoi(argv[10]),
       argc > 11 && std::string(argv[11]) == "--faults"};
  // A write past the file size limit fails instead of killing the writer,
  // as a full disk would.
  signal(SIGXFSZ, SIG_IGN);
  curl_global_init(CURL_GLOBAL_ALL);
  Http http;
  auto login = [&](User& user) {
    const Json::Value data =
        Parse(http.Post("/auth.cgi", "", {{"account", user.name}, {"passwd", "pw"}}).body)["data"];
    user.sid = data["sid"].asString();
    user.token = data["token"].asString();
    return !user.sid.empty();
  };
  User admin;
  admin.name = "admin";
  login(admin);
  Api(http, admin, "ZEVO.Larkpost.AdminSetting.POP3", "set",
      {{"enable_pop3", "true"}, {"pop3_fetch_period", "60"}});
  // The sessions one after the other: logins in flight from one address
  // count against its limit until they succeed.
  g_users = std::vector<User>(static_cast<size_t>(g.users));
  for (int i = 0; i < g.users; ++i) {
    User& user = g_users[static_cast<size_t>(i)];
    user.name = "user" + std::to_string(i + 1);
    if (!login(user)) {
      Note("cannot log in as " + user.name);
      return 1;
    }
  }
  // Each user's label and POP3 account, users side by side.
  std::atomic<bool> ready{true};
  std::vector<std::thread> setup;
  for (User& user : g_users) {
    setup.emplace_back([&] {
      Http http;
      Api(http, user, "ZEVO.Larkpost.Info", "getinfo", {});  // makes the store
      Answer label =
          Api(http, user, "ZEVO.Larkpost.Label", "create",
              {{"name", "Work"}, {"text_color", "#000000"}, {"background_color", "#ffffff"}});
      user.label = label.json["data"]["id"].asInt();
      // Every user fetches the same POP3 mailbox, kept on the server.
      Answer account = Api(http, user, "ZEVO.Larkpost.Setting.POP3", "create",
                           {{"mail", user.name + "@example.net"},
                            {"server_provider", "0"},
                            {"host_name", "127.0.0.1"},
                            {"port", std::to_string(g.pop3_port)},
                            {"user_name", "user"},
                            {"password", "secret"},
                            {"enable_ssl", "false"},
                            {"delete_after_fetch", "false"},
                            {"mailbox_path", "INBOX"},
                            {"fetch_pass_days", "0"}});
      if (account.outcome != kOk) {
        Note("cannot add a POP3 account for " + user.name + ": " + account.body);
        ready = false;
      }
    });
  }
  for (std::thread& thread : setup) thread.join();
  if (!ready) return 1;
  {
    std::lock_guard<std::mutex> lock(g_stats.mutex);
    g_stats.times.clear();
    g_stats.outcomes.clear();
  }

  const auto start = Clock::now();
  std::vector<std::thread> threads;
  for (int i = 0; i < g.clients; ++i) threads.emplace_back(Client, i + 1);
  threads.emplace_back(Deliveries);
  threads.emplace_back(Background);
  if (g.faults) threads.emplace_back(Faults);
  std::this_thread::sleep_for(std::chrono::seconds(g.seconds));
  g_running = false;
  for (std::thread& thread : threads) thread.join();
  const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();

  // Figures, per call.
  int requests = 0, errors = 0, broken = 0, broken_by_full_disk = 0;
  std::printf("%-26s %7s %9s %9s %9s %7s %7s\n", "call", "count", "median", "95th", "99th",
              "errors", "broken");
  for (auto& [call, outcome] : g_stats.outcomes) {
    std::vector<double>& times = g_stats.times[call];
    const int count = outcome[0] + outcome[1] + outcome[2];
    const bool http_call = call.find("deliver") == std::string::npos &&
                           call.find("import") == std::string::npos &&
                           call.find("fetch") == std::string::npos;
    if (http_call) requests += count;
    if (call.find("disk full") == std::string::npos) {
      errors += outcome[1];
      broken += outcome[2];
    } else {
      broken_by_full_disk += outcome[2];
    }
    std::printf("%-26s %7d %7.1fms %7.1fms %7.1fms %7d %7d\n", call.c_str(), count,
                Percentile(times, 0.5), Percentile(times, 0.95), Percentile(times, 0.99),
                outcome[1], outcome[2]);
  }
  std::printf("requests: %d in %.1f s, %.1f per second; deliveries %.1f per second\n", requests,
              elapsed, requests / elapsed,
              (g_stats.outcomes["deliver"][0] + g_stats.outcomes["deliver"][1]) / elapsed);
  for (const auto& [fault, count] : g_faults) std::printf("fault: %s: %d\n", fault.c_str(), count);

  // Once the service is back, every account fetches what it still lacks.
  std::this_thread::sleep_for(std::chrono::seconds(2));
  std::atomic<int> status{0};
  std::vector<std::thread> fetches;
  for (const User& user : g_users) {
    fetches.emplace_back([&user, &status] {
      if (Run({"larkpostctl", "--root", g.root, "fetch", user.name}, "", false) != 0) {
        Note("the last fetch for " + user.name + " failed");
        status = 1;
      }
    });
  }
  for (std::thread& thread : fetches) thread.join();
  // Every acknowledged message once, no refused one more than once, every
  // POP3 message once.
  int acknowledged = 0, lost = 0, doubled = 0, refused_kept = 0;
  std::map<std::string, std::vector<const Handed*>> by_user;
  for (const Handed& handed : g_handed) by_user[handed.user].push_back(&handed);
  std::map<std::string, std::string> uids;  // name -> uid
  std::string listing;
  Run({"larkpostctl", "--root", g.root, "user", "list"}, "", false, &listing);
  std::istringstream lines(listing);
  for (std::string uid, name; lines >> uid >> name;) {
    uids[name] = uid;
    lines.ignore(1 << 20, '\n');
  }
  for (const User& user : g_users) {
    std::map<std::string, int> copies = Copies(uids[user.name]);
    for (const Handed* handed : by_user[user.name]) {
      const int n = copies.count(handed->id) ? copies[handed->id] : 0;
      if (handed->acknowledged) {
        ++acknowledged;
        lost += n == 0;
      } else {
        refused_kept += n == 1;
      }
      doubled += n > 1;
      if (n > 1 || (handed->acknowledged && n == 0)) {
        Note(user.name + ": " + handed->id + " stored " + std::to_string(n) + " times");
      }
    }
    for (int i = 1; i <= g.pop3_count; ++i) {
      const std::string id = std::to_string(i) + "@bench.example.net";
      const int n = copies[id];
      lost += n == 0;
      doubled += n > 1;
      if (n != 1) Note(user.name + ": " + id + " fetched " + std::to_string(n) + " times");
    }
  }
  std::printf(
      "delivered or imported and acknowledged: %d (+%d POP3), lost %d, doubled %d; refused but "
      "stored %d\n",
      acknowledged, g.pop3_count * g.users, lost, doubled, refused_kept);
  if (lost || doubled || refused_kept) status = 1;
  if (!g.faults && (errors || broken)) status = 1;
  // A full disk is no reason for an answer that is not one.
  if (broken_by_full_disk) {
    Note(std::to_string(broken_by_full_disk) + " calls with the disk full had no clean answer");
    status = 1;
  }
  curl_global_cleanup();
  return status;
}
