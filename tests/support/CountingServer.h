// What a server makes of the deliveries of the durable mode: it counts each key once.

#pragma once

#include "forwarding/DurableSpool.h"
#include "foundation/formats/Json.h"

#include <map>
#include <string>

#include <gtest/gtest.h>

namespace sentrova::testing {

class CountingServer {
  public:
    // The member of an event that tells the events apart.
    explicit CountingServer(std::string member) : member_(std::move(member)) {}

    void receive(const DurableSpool::Delivery& delivery) {
        if (!delivery.key.empty()) {
            const auto [known, isNew] = bodies_.try_emplace(delivery.key, *delivery.body);
            EXPECT_EQ(known->second, *delivery.body) << "one key has two bodies";
            if (!isNew) {
                return;
            }
        }
        const auto events = Json::parse(*delivery.body);
        for (const auto& event : *events->array()) {
            ++arrived_[static_cast<int>((*event.dictionary())[member_].integerValue())];
        }
    }

    // Takes the next batch of the spool and answers it: 5 and 6 lose the answer or the request, 7 refuses the batch, 8
    // finds it too large, anything else confirms it, as does a repeated key. Returns false if no batch was ready.
    bool answer(DurableSpool& spool, unsigned how) {
        auto delivery = spool.take();
        if (!delivery) {
            // The key or the file of a batch may just be on its way to the disk.
            spool.onWork({});
            delivery = spool.take();
        }
        if (!delivery) {
            return false;
        }
        switch (bodies_.contains(delivery->key) ? 0 : how) {
            case 5:
                receive(*delivery);
                [[fallthrough]];
            case 6:
                spool.giveBack(delivery->name);
                break;
            case 7:
                spool.refuse(delivery->name, 400);
                break;
            case 8:
                spool.split(delivery->name, 413);
                break;
            default:
                receive(*delivery);
                spool.confirm(delivery->name);
        }
        spool.onWork({});
        return true;
    }

    int count(int event) const {
        const auto found = arrived_.find(event);
        return found == arrived_.end() ? 0 : found->second;
    }
    // By event: how often it was counted.
    const std::map<int, int>& arrived() const { return arrived_; }

  private:
    const std::string member_;
    std::map<std::string, std::string> bodies_;
    std::map<int, int> arrived_;
};

}  // namespace sentrova::testing
