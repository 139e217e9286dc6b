// What a recipient received, and whether it came once and in order. The tests
// post texts "SENDER#N..." (N counting from 0 per sender, anything after the
// number ignored) and read getEvents answers, whose events look like
// <ns0:event sender="SENDER" sequence="Q">SENDER#N...</ns0:event>.
#ifndef AVQVL_TESTS_DAEMON_DELIVERY_H
#define AVQVL_TESTS_DAEMON_DELIVERY_H

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace Harness {

struct Delivered {
    std::string sender;
    unsigned long sequence = 0;
    int number = -1;  // -1: the text does not carry "#N"
};

// The events of a getEvents answer, in answer order. A scan, not a regular
// expression, which is slow on answers of many megabytes.
inline std::vector<Delivered> scanEvents(const std::string& answer) {
    std::vector<Delivered> found;
    const std::string mark = "sender=\"";
    for (std::size_t at = answer.find(mark); at != std::string::npos;
         at = answer.find(mark, at + 1)) {
        char sender[64] = {};
        Delivered event;
        const std::string piece = answer.substr(at, 120);  // sscanf measures its input
        if (std::sscanf(piece.c_str(), "sender=\"%63[^\"]\" sequence=\"%lu\">%*[^#<]#%d", sender,
                        &event.sequence, &event.number) >= 2) {
            event.sender = sender;
            found.push_back(event);
        }
    }
    return found;
}

// The first fault in what `self` received, in arrival order; "" when none.
// Sequences must grow (a repeat is a duplicate, a drop is the order going
// backwards), each sender's numbers must grow, and nobody gets its own posts.
inline std::string orderFault(const std::string& self, const std::vector<Delivered>& received) {
    unsigned long lastSequence = 0;
    std::map<std::string, int> lastNumber;
    for (const Delivered& event : received) {
        const std::string what = event.sender + "#" + std::to_string(event.number) + " (sequence " +
                                 std::to_string(event.sequence) + ")";
        if (event.sender == self) {
            return "own post " + what;
        }
        if (event.sequence <= lastSequence) {
            return what + " after sequence " + std::to_string(lastSequence);
        }
        const auto last = lastNumber.find(event.sender);
        if (last != lastNumber.end() && event.number <= last->second) {
            return what + " after #" + std::to_string(last->second);
        }
        lastSequence = event.sequence;
        lastNumber[event.sender] = event.number;
    }
    return "";
}

}  // namespace Harness

#endif  // AVQVL_TESTS_DAEMON_DELIVERY_H
