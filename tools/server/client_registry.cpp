#include "tools/server/client_registry.h"

#include <algorithm>

#include "net/server_messages.h"

namespace tavistro::server {

using TavistroProtocol::Announce;

bool ClientRegistry::announce(const platform::Ipv4Endpoint& from, const Announce& announce,
                              const StreamFormat& format, std::uint64_t now_ms) {
    if (announce.session_id == 0 || announce.driver_inputs.size() > max_list_entries ||
        announce.driver_outputs.size() > max_list_entries) {
        return false;
    }
    const auto known = std::find_if(clients_.begin(), clients_.end(), [&](const Client& client) {
        return client.endpoint.address == from.address &&
               client.announce.client_id == announce.client_id;
    });
    const bool renews = known != clients_.end() && known->endpoint == from &&
                        known->announce.session_id == announce.session_id;
    if (is_leave(announce)) {
        // Ignore a leave of an older session that arrives after the next session's announce.
        if (renews) {
            ++counters_.sessions_left;
            remove(known);
        }
        return true;
    }
    if (renews && known->announce.driver_inputs == announce.driver_inputs &&
        known->announce.driver_outputs == announce.driver_outputs) {
        known->announce = announce;
        known->announced_ms = now_ms;
        return true;
    }
    if (known != clients_.end()) {
        ++counters_.sessions_replaced;
        remove(known);
    }
    ++counters_.sessions;
    clients_.emplace_back(from, announce, format).announced_ms = now_ms;
    return true;
}

void ClientRegistry::drop_silent(std::uint64_t now_ms) {
    for (auto client = clients_.begin(); client != clients_.end();) {
        if (now_ms - client->announced_ms < timeout_ms) {
            ++client;
            continue;
        }
        ++counters_.sessions_timed_out;
        client = remove(client);
    }
}

void ClientRegistry::change_format(const StreamFormat& format) {
    for (Client& client : clients_)
        client.input.change_format(format);
}

Client* ClientRegistry::find(const platform::Ipv4Endpoint& endpoint, std::uint32_t client_id) {
    const auto found = std::find_if(clients_.begin(), clients_.end(), [&](const Client& client) {
        return client.endpoint == endpoint && client.announce.client_id == client_id;
    });
    return found == clients_.end() ? nullptr : &*found;
}

InputCounters ClientRegistry::input_counters() const {
    InputCounters sum = gone_input_;
    for (const Client& client : clients_)
        sum += client.input.counters();
    return sum;
}

std::list<Client>::iterator ClientRegistry::remove(std::list<Client>::iterator client) {
    gone_input_ += client->input.counters();
    return clients_.erase(client);
}

}  // namespace tavistro::server
