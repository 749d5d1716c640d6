// The connections section of the state dump: the settings that shape the
// front end, the relay lists, and one block per connection record.
#include <arpa/inet.h>

#include <cstdio>

#include "smtp/config.h"
#include "smtp/smtp.h"

namespace {

const char* text_or_nil(const DynString* s) {
  return s != nullptr ? s->data : "(nil)";
}

void dump_settings(FILE* out) {
  fprintf(out, "config: listen_addr %08x listen port %d\n", config.listen_addr, config.listen_port);
  fprintf(out, "   idle_timeout %d  max_connections %d\n", config.idle_timeout,
          config.max_connections);
  fprintf(out, "   user %s group %s\n", config.user, config.group);
  fprintf(out, "   max_mag_size %lld max_rcpt %d max_errors %d\n", config.max_msg_size,
          config.max_rcpt, config.max_errors);
  fprintf(out, "   my_domain %s local_domain_file %s relay_ips_file %s\n", config.my_domain,
          config.local_domain_file, config.relay_ips_file);
  fprintf(out, "   greeting %s auth_file %s scan_dir %s scan_prefix %s\n", config.greeting,
          config.auth_file, config.scan_dir, config.scan_prefix);
  fprintf(out, "address_transparent: %d\n", config.address_transparent);
}

void dump_lists(FILE* out) {
  fprintf(out, "Globals:\n");
  fprintf(out, "   num_local_domains %d\n", static_cast<int>(local_domains.size()));
  int i = 0;
  for (const DstrPtr& domain : local_domains) fprintf(out, "       %d %s\n", i++, domain->data);
  fprintf(out, "   num_relay_ips %d\n", static_cast<int>(relay_ips.size()));
  i = 0;
  for (const RelayIp& entry : relay_ips) {
    // inet_ntoa gets the value as stored, in host byte order, so the dotted
    // form reads reversed on little-endian hosts; readers of this dump
    // expect that form.
    in_addr as_stored{};
    as_stored.s_addr = entry.addr;
    fprintf(out, "      %d %08x %s %08x\n", i++, entry.addr, inet_ntoa(as_stored), entry.mask);
  }
}

void dump_connection(FILE* out, const Connection* c) {
  fprintf(out, "******************************\n");
  fprintf(out, "active connection pc %p closed %d\n", static_cast<const void*>(c), c->closed);
  fprintf(out, "sender_fd %d receiver_fd %d \n", c->sender_fd, c->receiver_fd);
  // inet_ntoa returns a static buffer: one address per call.
  fprintf(out, "sender_addr %s ", inet_ntoa(c->sender_addr.sin_addr));
  fprintf(out, "receiver_addr %s ", inet_ntoa(c->receiver_addr.sin_addr));
  fprintf(out, "my_receiver_addr %s ", inet_ntoa(c->my_receiver_addr.sin_addr));
  fprintf(out, "my_sender_addr %s\n", inet_ntoa(c->my_sender_addr.sin_addr));
  const Transaction* txn = c->txn.get();
  const Message* m = txn_message(c);
  fprintf(out, "num rcpts %d: ", txn != nullptr ? static_cast<int>(txn->rcpts.size()) : 0);
  if (txn != nullptr) {
    for (auto r = txn->rcpts.rbegin(); r != txn->rcpts.rend(); ++r) fprintf(out, "%s ", (*r)->data);
  }
  fprintf(out, "\n");
  fprintf(out, "helo domain: %s from %s\n", text_or_nil(c->helo_domain.get()),
          text_or_nil(txn != nullptr ? txn->from.get() : nullptr));
  fprintf(out, "scan_file_name %s\n",
          m != nullptr && m->file != nullptr ? m->file->name.c_str() : "(nil)");
  fprintf(out, "be_state %d can_relay %d be_pipelining %d newline %d closed %d\n", c->be_state,
          c->can_relay, c->be_pipelining, m != nullptr && m->rx.newline, c->closed);
  fprintf(out, "errors %d \n", c->errors);
}

}  // namespace

void dump_connections(FILE* out) {
  dump_settings(out);
  dump_lists(out);
  fprintf(out, "    num_connections %d\n", num_connections);
  for (const Connection* c = active_connections; c != nullptr; c = c->next) dump_connection(out, c);
  for (const Connection* c = closed_connections; c != nullptr; c = c->next) {
    fprintf(out, "******************************\n");
    fprintf(out, "freed connection pc %p closed %d\n", static_cast<const void*>(c), c->closed);
  }
}
