#include "bench/baselines/Baselines.h"

int main(int argc, char** argv) {
  return Bench::runAs(argc, argv,
                      {{"serve-bytes", Bench::serveBytes},
                       {"drive-bytes", Bench::driveBytes},
                       {"serve-json", Bench::serveJson},
                       {"drive-json", Bench::driveJson},
                       {"serve-epoll", Bench::serveEpoll},
                       {"drive-epoll", Bench::driveEpoll},
                       {"crowd", Bench::driveCrowd}});
}
