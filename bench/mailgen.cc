// Writes an mbox of realistic mail for the benchmarks: conversations of 1 to
// 20 messages (replies carry In-Reply-To and References), a tenth of them
// with an attachment, plain and HTML bodies, a few dozen correspondents.
// Deterministic for a given seed.
//
//   mailgen COUNT [SEED] > mail.mbox
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

namespace {

const char* const kWords[] = {
    "meeting", "report", "budget", "invoice", "holiday", "project", "deadline", "review",
    "contract", "schedule", "launch", "design", "customer", "server", "backup", "release",
    "quarter", "travel", "lunch", "training", "update", "question", "proposal", "draft",
    "garden", "concert", "recipe", "weekend", "photos", "football", "library", "museum"};
const char* const kNames[] = {"Ann Lee", "Bo Chen", "Carla Diaz", "Dev Patel", "Eva Novak",
                              "Femi Ade", "Gus Berg", "Hana Sato", "Ivan Petrov", "Jo Kim"};
const char* const kDomains[] = {"example.org", "example.com", "example.net", "mail.example"};

class Generator {
 public:
  explicit Generator(uint32_t seed) : random_(seed) {}

  int Between(int low, int high) { return std::uniform_int_distribution<int>(low, high)(random_); }
  template <typename T, size_t N>
  const T& Pick(const T (&items)[N]) {
    return items[Between(0, N - 1)];
  }
  std::string Words(int count) {
    std::string text;
    for (int i = 0; i < count; ++i) text += std::string(i ? " " : "") + Pick(kWords);
    return text;
  }
  std::string Address(int person) {
    const std::string name = kNames[person % 10];
    std::string local = name.substr(0, name.find(' '));
    for (char& c : local) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return name + " <" + local + std::to_string(person) + "@" + kDomains[person % 4] + ">";
  }

 private:
  std::mt19937 random_;
};

std::string Base64(const std::string& data) {
  static const char kTable[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  size_t line = 0;
  for (size_t i = 0; i < data.size(); i += 3) {
    uint32_t chunk = static_cast<uint8_t>(data[i]) << 16;
    if (i + 1 < data.size()) chunk |= static_cast<uint8_t>(data[i + 1]) << 8;
    if (i + 2 < data.size()) chunk |= static_cast<uint8_t>(data[i + 2]);
    out += kTable[(chunk >> 18) & 63];
    out += kTable[(chunk >> 12) & 63];
    out += i + 1 < data.size() ? kTable[(chunk >> 6) & 63] : '=';
    out += i + 2 < data.size() ? kTable[chunk & 63] : '=';
    if ((line += 4) >= 76) {
      out += "\n";
      line = 0;
    }
  }
  return out + "\n";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: mailgen COUNT [SEED] > mail.mbox\n");
    return 2;
  }
  const long count = std::atol(argv[1]);
  Generator gen(argc > 2 ? static_cast<uint32_t>(std::atol(argv[2])) : 1);
  int64_t time = 1600000000;  // 2020-09-13, then forward
  long written = 0;
  for (long thread = 0; written < count; ++thread) {
    const int length = std::min<long>(gen.Between(1, 20) > 14 ? gen.Between(2, 20) : gen.Between(1, 3),
                                      count - written);
    const std::string subject = gen.Words(gen.Between(2, 6));
    std::vector<std::string> ids;
    for (int i = 0; i < length; ++i, ++written) {
      time += gen.Between(30, 3600);
      const std::string id = "m" + std::to_string(written) + "@bench.example";
      const int from = gen.Between(0, 39), to = gen.Between(0, 39);
      char date[64];
      std::time_t t = time;
      std::strftime(date, sizeof(date), "%a, %d %b %Y %H:%M:%S +0000", std::gmtime(&t));
      std::string headers = "From: " + gen.Address(from) + "\nTo: " + gen.Address(to) + "\nSubject: " +
                (i ? "Re: " : "") + subject + "\nMessage-ID: <" + id + ">\nDate: " + date + "\n";
      if (i) {
        headers += "In-Reply-To: <" + ids.back() + ">\nReferences:";
        for (const std::string& ref : ids) headers += " <" + ref + ">";
        headers += "\n";
      }
      ids.push_back(id);
      const std::string text = gen.Words(gen.Between(20, 200));
      const bool html = gen.Between(0, 1) == 1;
      const bool attachment = gen.Between(0, 9) == 0;
      std::string body;
      headers += "MIME-Version: 1.0\n";
      if (!html && !attachment) {
        headers += "Content-Type: text/plain; charset=utf-8\n";
        body = text + "\n";
      } else {
        headers += "Content-Type: multipart/mixed; boundary=\"b1\"\n";
        body = "--b1\nContent-Type: text/" + std::string(html ? "html" : "plain") +
               "; charset=utf-8\n\n" +
               (html ? "<html><body><p>" + text + "</p><blockquote>" + gen.Words(10) +
                           "</blockquote></body></html>\n"
                     : text + "\n");
        if (attachment) {
          body += "--b1\nContent-Type: application/pdf\nContent-Disposition: attachment; "
                  "filename=\"" + gen.Words(1) + ".pdf\"\nContent-Transfer-Encoding: base64\n\n" +
                  Base64(std::string(gen.Between(2000, 20000), 'x'));
        }
        body += "--b1--\n";
      }
      std::printf("From bench@example.org %s\n%s\n%s\n", "Mon Sep 14 00:00:00 2020",
                  headers.c_str(), body.c_str());
    }
  }
  return 0;
}
