// The reader of the Redis store's post publications (any subscriber of the
// channel may publish there): whatever the bytes, it reads within them, and
// what it accepts holds no more than the message did.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "engine/internal/RedisScripts.h"

using namespace Arvant::Net::AvQuorvel::Engine;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Exactly the message's bytes: a read past them is the sanitizer's to see.
    const std::unique_ptr<char[]> message(new char[size]);
    std::copy(data, data + size, message.get());
    std::string serverId;
    std::shared_ptr<const PostNews> news;
    if (!decodePostNews(message.get(), size, serverId, news)) {
        return 0;
    }
    std::size_t held = serverId.size();
    for (std::size_t i = 0; news && i < news->clients.size(); ++i) {
        held += news->clients[i].size();
    }
    for (std::size_t i = 0; news && i < news->events.size(); ++i) {
        held += news->events[i].sender.size() + news->events[i].text->size();
    }
    if (held > size) {
        std::abort();
    }
    return 0;
}
