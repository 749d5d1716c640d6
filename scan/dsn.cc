// Delivery status notifications, written as XMail-style spool files: two
// envelope lines (null reverse path, the message's sender as the one
// recipient), a blank line, then a multipart/report message. The file is
// complete in mailer_temp_dir before the rename makes the mailer see it.
#include "scan/dsn.h"

#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "event/comm.h"
#include "foundation/dlog.h"
#include "foundation/text.h"
#include "scan/header.h"

namespace {

// 1..256, then 1 again: notifications of this process within one second
// differ here, so their spool names do not collide (until the 257th).
int dsn_sequence = 1;

constexpr const char* HEADER_FORMAT =
    "MAIL FROM: <>\r\n"
    "RCPT TO: <%s>\r\n"
    "\r\n"
    "Message-ID: <%s>\r\n"
    "From: Mail Delivery Subsystem <MAILER-DAEMON@%s>\r\n"
    "Subject: Returned mail: see transcript for details\r\n"
    "To: %s\r\n"
    "Date: %s\r\n"
    "MIME-Version: 1.0\r\n"
    "Content-Type: multipart/report; report-type=delivery-status;\r\n"
    "        boundary=\"%s\"\r\n"
    "\r\n";

// The message as it went to the backend, when it is not empty and smaller
// than max_msg_size; otherwise the part is left out. A short write leaves the
// stream's error flag set for the caller to find.
void write_message_part(FILE* out, int fd, long long max_msg_size, const char* boundary,
                        const char* path) {
  struct stat st;
  if (fd < 0) errno = EBADF;
  if (fd < 0 || fstat(fd, &st) != 0) {
    dlog(DLOG_SMTP, 1, "send_dsn: error fstat()ing file: %m\n");
    return;
  }
  if (static_cast<int64_t>(st.st_size) >= static_cast<int64_t>(max_msg_size)) return;
  if (st.st_size == 0) {
    dlog(DLOG_SMTP, 1, "send_dsn: empty scan file, no message part\n");
    return;
  }
  fprintf(out, "--%s\r\nContent-Type: message/rfc822\r\n\r\n", boundary);
  char block[16384];
  for (off_t at = 0; at < st.st_size;) {
    ssize_t n = pread(fd, block, sizeof block, at);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0 || fwrite(block, 1, static_cast<size_t>(n), out) < static_cast<size_t>(n)) {
      dlog(DLOG_SMTP, 1, "Error writing DNS file %s: %m\n", path);
      return;
    }
    at += n;
  }
}

}  // namespace

void send_dsn(const DsnMessage& message, const DsnSettings& settings) {
  // A message from the null sender gets no notification: there is nobody to
  // send it to, and answering one could start a loop between mailers.
  if (message.from == nullptr || message.from[0] == '\0') {
    dlog(DLOG_SMTP, 3, "%p, send_dsn: no notification for the null sender\n", message.log_id);
    return;
  }
  struct utsname host;
  if (uname(&host) != 0) str_copy_bounded(host.nodename, "localhost", sizeof host.nodename);
  const long now = static_cast<long>(comm_current_time());
  const int pid = static_cast<int>(getpid());

  char* name = nullptr;
  char* path = nullptr;
  xasprintf(&name, "%ld-%.3d.%d.%s", now, dsn_sequence, pid, host.nodename);
  xasprintf(&path, "%s/%s", settings.temp_dir, name);
  FILE* out = fopen(path, "w");
  if (out == nullptr) {
    dlog(DLOG_SMTP, 1, "send_dsn: cannot open mail file %s to write\n", path);
    free(name);
    free(path);
    return;
  }

  char* boundary = nullptr;
  xasprintf(&boundary, "%ld.%d/%s", now, pid, host.nodename);
  const time_t date_time = static_cast<time_t>(now);
  char* date = rfc822_date(&date_time);
  const char* from = message.from;
  fprintf(out, HEADER_FORMAT, from, name, settings.my_domain, from, date, boundary);
  free(date);

  fprintf(out,
          "--%s\r\nContent-Type: text/plain; charset=us-ascii\r\n\r\n"
          "The following address(es) had delivery problems:\r\n",
          boundary);
  for (const char* r : message.refused) fprintf(out, " %s\r\n", r);
  fputs("\r\n", out);
  fprintf(out,
          "--%s\r\nContent-Type: message/delivery-status\r\n\r\n"
          "Reporting-MTA: dns; %s\r\n\r\n",
          boundary, settings.my_domain);
  for (const char* r : message.refused)
    fprintf(out, "Final-Recipient: rfc822;%s\r\nAction: failed\r\nStatus: 5.1.0\r\n\r\n", r);
  write_message_part(out, message.message_fd, settings.max_msg_size, boundary, path);
  fprintf(out, "\r\n--%s--\r\n\r\n", boundary);
  free(boundary);

  bool complete = ferror(out) == 0;
  if (fclose(out) != 0) complete = false;
  dsn_sequence = dsn_sequence > 255 ? 1 : dsn_sequence + 1;
  if (!complete) {
    // A cut notification would reach the mailer as a broken message.
    dlog(DLOG_SMTP, 1, "Error writing DNS file %s: %m\n", path);
    unlink(path);
  } else {
    char* target = nullptr;
    xasprintf(&target, "%s/%s", settings.local_dir, name);
    if (rename(path, target) != 0) {
      dlog(DLOG_SMTP, 1, "send_dsn: cannot move %s to %s: %m\n", path, target);
    }
    free(target);
  }
  free(name);
  free(path);
}
