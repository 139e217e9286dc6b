// `quorvel demo`: a short scenario on the service the library is linked with
// (the embedded one by default), printing what each step sends and receives.
#ifndef AVQVL_TOOLS_DEMO_H
#define AVQVL_TOOLS_DEMO_H

namespace Arvant::Net::AvQuorvel::Tools {

// 0 when every step behaved as expected (the last one is expected to fail),
// otherwise the exit code of the first surprise.
int runDemo();

}  // namespace Arvant::Net::AvQuorvel::Tools

#endif  // AVQVL_TOOLS_DEMO_H
