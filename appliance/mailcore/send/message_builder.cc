#include "appliance/mailcore/send/message_builder.h"

#include <errno.h>
#include <fcntl.h>
#include <gmime/gmime.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "appliance/mailcore/controller_impl.h"
#include "platform/mailcore/error.h"

namespace ornic::larkpost::send {
namespace {

struct GObjectRelease {
  void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename T>
using GObjectPtr = std::unique_ptr<T, GObjectRelease>;

struct FormatOptionsRelease {
  void operator()(GMimeFormatOptions* options) const { g_mime_format_options_free(options); }
};

struct DateRelease {
  void operator()(GDateTime* date) const { g_date_time_unref(date); }
};

void InitGMime() {
  static std::once_flag init;
  std::call_once(init, [] { g_mime_init(); });
}

[[noreturn]] void StorageFailure(int line, const std::string& what) {
  store::LogError("send", line, what + ": " + strerror(errno));
  throw Error(kErrorStorage);
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// A header text on one line: a line break in a stored text must not start
// a header of its own.
std::string OneLine(std::string text) {
  for (char& c : text) {
    if (c == '\r' || c == '\n') c = ' ';
  }
  return text;
}

// A message id as it may stand between angle brackets: no blanks, no
// brackets, no control characters.
std::string BareId(const std::string& id) {
  std::string bare;
  for (char c : id) {
    unsigned char u = static_cast<unsigned char>(c);
    if (u > ' ' && u != 0x7F && c != '<' && c != '>') bare += c;
  }
  return bare;
}

// The mailboxes of `list` in order, those of groups included.
void Mailboxes(InternetAddressList* list, std::vector<InternetAddressMailbox*>* out) {
  for (int i = 0; i < internet_address_list_length(list); ++i) {
    InternetAddress* address = internet_address_list_get_address(list, i);
    if (INTERNET_ADDRESS_IS_MAILBOX(address)) {
      out->push_back(INTERNET_ADDRESS_MAILBOX(address));
    } else if (INTERNET_ADDRESS_IS_GROUP(address)) {
      Mailboxes(internet_address_group_get_members(INTERNET_ADDRESS_GROUP(address)), out);
    }
  }
}

// Names that are not ASCII go out as UTF-8 encoded words.
void Utf8Names(InternetAddressList* list) {
  for (int i = 0; i < internet_address_list_length(list); ++i) {
    InternetAddress* address = internet_address_list_get_address(list, i);
    internet_address_set_charset(address, "utf-8");
    if (INTERNET_ADDRESS_IS_GROUP(address)) {
      Utf8Names(internet_address_group_get_members(INTERNET_ADDRESS_GROUP(address)));
    }
  }
}

GObjectPtr<InternetAddressList> ParseAddresses(const std::string& text) {
  InternetAddressList* list = internet_address_list_parse(nullptr, OneLine(text).c_str());
  return GObjectPtr<InternetAddressList>(list ? list : internet_address_list_new());
}

// Envelope recipients, each address once (compared without regard to case).
class Recipients {
 public:
  // Adds the addresses of every text; appends the texts' addresses to
  // `header` unless it is null (Bcc).
  void Add(const std::vector<std::string>& texts, InternetAddressList* header) {
    for (const std::string& text : texts) {
      GObjectPtr<InternetAddressList> list = ParseAddresses(text);
      std::vector<InternetAddressMailbox*> mailboxes;
      Mailboxes(list.get(), &mailboxes);
      bool any = false;
      for (InternetAddressMailbox* mailbox : mailboxes) {
        const char* address = internet_address_mailbox_get_addr(mailbox);
        if (address == nullptr || *address == '\0') continue;
        any = true;
        if (seen_.insert(Lower(address)).second) addresses_.push_back(address);
      }
      if (any && header != nullptr) {
        Utf8Names(list.get());
        internet_address_list_append(header, list.get());
      }
    }
  }
  std::vector<std::string> Take() { return std::move(addresses_); }

 private:
  std::set<std::string> seen_;
  std::vector<std::string> addresses_;
};

GObjectPtr<GMimeObject> TextPart(const char* subtype, const std::string& text) {
  GObjectPtr<GMimeTextPart> part(g_mime_text_part_new_with_subtype(subtype));
  GObjectPtr<GMimeStream> stream(g_mime_stream_mem_new_with_buffer(text.data(), text.size()));
  GObjectPtr<GMimeDataWrapper> content(
      g_mime_data_wrapper_new_with_stream(stream.get(), GMIME_CONTENT_ENCODING_DEFAULT));
  g_mime_part_set_content(GMIME_PART(part.get()), content.get());
  g_mime_text_part_set_charset(part.get(), "utf-8");
  g_mime_part_set_content_encoding(GMIME_PART(part.get()),
                                   g_mime_part_get_best_content_encoding(
                                       GMIME_PART(part.get()), GMIME_ENCODING_CONSTRAINT_7BIT));
  return GObjectPtr<GMimeObject>(GMIME_OBJECT(part.release()));
}

void Utf8Parameter(GMimeParamList* parameters, const char* name) {
  GMimeParam* parameter = parameters ? g_mime_param_list_get_parameter(parameters, name) : nullptr;
  if (parameter != nullptr) g_mime_param_set_charset(parameter, "utf-8");
}

// One attachment as a part; `fd` (its content, read from the start) is the
// part's from now on.
GObjectPtr<GMimeObject> FilePart(const store::DraftAttachment& attachment, int fd, bool in_html) {
  std::string type = Lower(attachment.mimetype);
  size_t slash = type.find('/');
  if (slash == std::string::npos || slash == 0 || slash + 1 == type.size()) {
    type = "application/octet-stream";
    slash = type.find('/');
  }
  GObjectPtr<GMimePart> part(
      g_mime_part_new_with_type(type.substr(0, slash).c_str(), type.substr(slash + 1).c_str()));
  GObjectPtr<GMimeStream> stream(g_mime_stream_fs_new(fd));
  GObjectPtr<GMimeDataWrapper> content(
      g_mime_data_wrapper_new_with_stream(stream.get(), GMIME_CONTENT_ENCODING_DEFAULT));
  g_mime_part_set_content(part.get(), content.get());
  GMimeObject* object = GMIME_OBJECT(part.get());
  if (in_html) {
    g_mime_object_set_disposition(object, GMIME_DISPOSITION_INLINE);
    g_mime_object_set_content_id(object, attachment.content_id.c_str());
  } else {
    g_mime_object_set_disposition(object, GMIME_DISPOSITION_ATTACHMENT);
  }
  if (!attachment.name.empty()) {
    g_mime_part_set_filename(part.get(), OneLine(attachment.name).c_str());
    Utf8Parameter(
        g_mime_content_disposition_get_parameters(g_mime_object_get_content_disposition(object)),
        "filename");
    Utf8Parameter(g_mime_content_type_get_parameters(g_mime_object_get_content_type(object)),
                  "name");
  }
  GMimeContentEncoding encoding = GMIME_CONTENT_ENCODING_BASE64;
  if (type.compare(0, 5, "text/") == 0) {
    encoding = g_mime_part_get_best_content_encoding(part.get(), GMIME_ENCODING_CONSTRAINT_7BIT);
  } else if (type.compare(0, 8, "message/") == 0) {
    // An attached message may not be encoded; one that would need it goes
    // as plain data.
    encoding = g_mime_part_get_best_content_encoding(part.get(), GMIME_ENCODING_CONSTRAINT_8BIT);
    if (encoding == GMIME_CONTENT_ENCODING_BASE64 ||
        encoding == GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE) {
      GObjectPtr<GMimeContentType> octets(
          g_mime_content_type_parse(nullptr, "application/octet-stream"));
      g_mime_object_set_content_type(object, octets.get());
      if (!attachment.name.empty()) {
        g_mime_content_type_set_parameter(octets.get(), "name", OneLine(attachment.name).c_str());
        Utf8Parameter(g_mime_content_type_get_parameters(octets.get()), "name");
      }
      encoding = GMIME_CONTENT_ENCODING_BASE64;
    }
  }
  g_mime_part_set_content_encoding(part.get(), encoding);
  return GObjectPtr<GMimeObject>(GMIME_OBJECT(part.release()));
}

// A multipart of `subtype` holding `parts`.
GObjectPtr<GMimeObject> Multipart(const char* subtype, std::vector<GObjectPtr<GMimeObject>> parts) {
  GObjectPtr<GMimeMultipart> multipart(g_mime_multipart_new_with_subtype(subtype));
  for (const auto& part : parts) g_mime_multipart_add(multipart.get(), part.get());
  return GObjectPtr<GMimeObject>(GMIME_OBJECT(multipart.release()));
}

// The content of `attachment`, in a work file.
int ContentFile(const store::DraftAttachment& attachment, const ContentWriter& write,
                const std::string& work_dir) {
  int fd = OpenWorkFile(work_dir);
  try {
    write(attachment, fd);
    if (lseek(fd, 0, SEEK_SET) != 0) StorageFailure(__LINE__, "rewinding an attachment to send");
  } catch (...) {
    close(fd);
    throw;
  }
  return fd;
}

GObjectPtr<GMimeObject> Body(const store::Draft& draft, const ContentWriter& write,
                             const std::string& work_dir) {
  const bool has_html = !draft.html_body.empty();
  std::vector<GObjectPtr<GMimeObject>> images, files;
  for (const store::DraftAttachment& attachment : draft.attachments) {
    // An inline image needs HTML to stand in and a Content-ID to be found
    // by; without them it is an attachment like any other.
    bool in_html = has_html && attachment.is_inline && !attachment.content_id.empty();
    (in_html ? images : files)
        .push_back(FilePart(attachment, ContentFile(attachment, write, work_dir), in_html));
  }
  GObjectPtr<GMimeObject> body = TextPart("plain", draft.plain_body);
  if (has_html) {
    GObjectPtr<GMimeObject> html = TextPart("html", draft.html_body);
    if (!images.empty()) {
      images.insert(images.begin(), std::move(html));
      html = Multipart("related", std::move(images));
      g_mime_content_type_set_parameter(g_mime_object_get_content_type(html.get()), "type",
                                        "text/html");
    }
    std::vector<GObjectPtr<GMimeObject>> both;
    both.push_back(std::move(body));
    both.push_back(std::move(html));
    body = Multipart("alternative", std::move(both));
  }
  if (!files.empty()) {
    files.insert(files.begin(), std::move(body));
    body = Multipart("mixed", std::move(files));
  }
  return body;
}

}  // namespace

std::string SenderAddress(const std::string& from_text) {
  InitGMime();
  GObjectPtr<InternetAddressList> list = ParseAddresses(from_text);
  std::vector<InternetAddressMailbox*> mailboxes;
  Mailboxes(list.get(), &mailboxes);
  const char* address =
      mailboxes.empty() ? nullptr : internet_address_mailbox_get_addr(mailboxes.front());
  return address == nullptr ? std::string() : address;
}

bool IsOwnAddress(const std::string& address, const std::vector<std::string>& own) {
  const size_t at = address.rfind('@');
  if (at == std::string::npos || at == 0) return false;
  for (const std::string& mine : own) {
    const size_t mine_at = mine.rfind('@');
    if (mine_at == at && address.compare(0, at, mine, 0, at) == 0 &&
        Lower(address.substr(at)) == Lower(mine.substr(mine_at))) {
      return true;
    }
  }
  return false;
}

int OpenWorkFile(const std::string& dir) {
  const std::string where = dir.empty() ? "/tmp" : dir;
  int fd = open(where.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (fd >= 0) return fd;
  // File systems without nameless files: a named one, unlinked at once.
  std::string pattern = where + "/.send-XXXXXX";
  fd = mkostemp(pattern.data(), O_CLOEXEC);
  if (fd < 0) StorageFailure(__LINE__, "making a work file in " + where);
  unlink(pattern.c_str());
  return fd;
}

Envelope WriteMessage(const store::Draft& draft, const MessageHeaders& headers,
                      const ContentWriter& content, const std::string& work_dir, int out) {
  InitGMime();
  Envelope envelope;
  GObjectPtr<GMimeMessage> message(g_mime_message_new(TRUE));
  GMimeObject* object = GMIME_OBJECT(message.get());

  GObjectPtr<InternetAddressList> from_list = ParseAddresses(draft.from);
  std::vector<InternetAddressMailbox*> senders;
  Mailboxes(from_list.get(), &senders);
  const char* from_address =
      senders.empty() ? nullptr : internet_address_mailbox_get_addr(senders.front());
  if (from_address == nullptr || *from_address == '\0') {
    store::LogError("send", __LINE__, "draft " + std::to_string(draft.id) + " has no sender");
    throw Error(kErrorInvalidArgument);
  }
  envelope.sender = from_address;
  InternetAddress* from = INTERNET_ADDRESS(senders.front());
  const char* name = internet_address_get_name(from);
  if ((name == nullptr || *name == '\0') && !headers.sender_name.empty()) {
    internet_address_set_name(from, OneLine(headers.sender_name).c_str());
  }
  internet_address_set_charset(from, "utf-8");
  internet_address_list_add(g_mime_message_get_addresses(message.get(), GMIME_ADDRESS_TYPE_FROM),
                            from);

  Recipients recipients;
  recipients.Add(draft.to, g_mime_message_get_addresses(message.get(), GMIME_ADDRESS_TYPE_TO));
  recipients.Add(draft.cc, g_mime_message_get_addresses(message.get(), GMIME_ADDRESS_TYPE_CC));
  recipients.Add(draft.bcc, nullptr);
  envelope.recipients = recipients.Take();
  if (envelope.recipients.empty()) throw Error(kErrorNoRecipient);

  std::unique_ptr<GDateTime, DateRelease> date(g_date_time_new_from_unix_local(headers.date));
  g_mime_message_set_date(message.get(), date.get());
  g_mime_message_set_message_id(message.get(), BareId(headers.message_id).c_str());
  if (!draft.subject.empty()) {
    g_mime_message_set_subject(message.get(), OneLine(draft.subject).c_str(), "utf-8");
  }
  // References end with the message answered, as its own chain plus its id.
  const std::string in_reply_to = BareId(draft.in_reply_to);
  std::vector<std::string> chain;
  for (const std::string& reference : draft.references) {
    std::string bare = BareId(reference);
    if (!bare.empty() && std::find(chain.begin(), chain.end(), bare) == chain.end()) {
      chain.push_back(bare);
    }
  }
  if (!in_reply_to.empty()) {
    chain.erase(std::remove(chain.begin(), chain.end(), in_reply_to), chain.end());
    chain.push_back(in_reply_to);
    g_mime_object_set_header(object, "In-Reply-To", ("<" + in_reply_to + ">").c_str(), nullptr);
  }
  std::string references;
  for (const std::string& id : chain) references += (references.empty() ? "<" : " <") + id + ">";
  if (!references.empty()) {
    g_mime_object_set_header(object, "References", references.c_str(), nullptr);
  }

  g_mime_message_set_mime_part(message.get(), Body(draft, content, work_dir).get());

  std::unique_ptr<GMimeFormatOptions, FormatOptionsRelease> format(g_mime_format_options_new());
  g_mime_format_options_set_newline_format(format.get(), GMIME_NEWLINE_FORMAT_DOS);
  GObjectPtr<GMimeStream> stream(g_mime_stream_fs_new(out));
  g_mime_stream_fs_set_owner(GMIME_STREAM_FS(stream.get()), FALSE);
  if (g_mime_object_write_to_stream(object, format.get(), stream.get()) < 0 ||
      g_mime_stream_flush(stream.get()) != 0) {
    StorageFailure(__LINE__, "writing the message to send");
  }
  return envelope;
}

}  // namespace ornic::larkpost::send
