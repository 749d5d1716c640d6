#include "smtp/backend.h"

#include <unistd.h>

#include <cstdio>

void close_backend(Connection* conn) {
  conn->be_state = BE_INIT;
  conn->be_pipelining = false;
  conn->transaction_pending = false;
  if (conn->be_connect != nullptr) comm_connect_abort(conn->be_connect);
  conn->be_connect = nullptr;
  if (conn->receiver_stream != nullptr) lstream_close(nullptr, conn->receiver_stream);
  conn->receiver_stream = nullptr;
  if (conn->receiver_fd != -1) {
    // Handlers go before the descriptor, so none can run on a reused number.
    comm_clear_read(conn->receiver_fd);
    comm_clear_write(conn->receiver_fd, 0);
    close(conn->receiver_fd);
    conn->receiver_fd = -1;
  }
  if (conn->scan_timer != nullptr) timer_cancel(conn->scan_timer);
  conn->scan_timer = nullptr;
  if (conn->scan_file != nullptr) fclose(conn->scan_file);
  conn->scan_file = nullptr;
  if (conn->scan_file_name != nullptr) {
    unlink(conn->scan_file_name->data);
    dstr_free(conn->scan_file_name);
    conn->scan_file_name = nullptr;
  }
  if (conn->noop_timer != nullptr) timer_cancel(conn->noop_timer);
  conn->noop_timer = nullptr;
}
