// vigild: filtering SMTP proxy daemon.
#include "daemon/vigild.h"

int main(int argc, char** argv) {
  return vigild_main(argc, argv);
}
