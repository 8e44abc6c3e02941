#pragma once
// Several publishers as one: each publication goes to every member (the last one takes the bytes, the others a
// copy). The folder on disk, the HTTP origin and the push to a remote origin are members of one group.
#include <memory>
#include <vector>

#include "apps/fmp4mux/outputs/publisher.h"

namespace fmp4mux {

class PublisherGroup : public Publisher {
public:
    void add(Publisher& member) { m_members.push_back(&member); }

    void publish(Publication&& publication) override {
        if (m_members.size() > 1) {
            // The copies hold only the bytes written, joined: a chunk comes in a room larger than itself, and
            // with references to bytes that stay where they are.
            tvrn::system::ByteBuffer bytes = std::move(publication.bytes);
            Publication bare = publication;
            publication.bytes = std::move(bytes);
            bare.bytes = gather(publication);
            bare.ranges.clear();
            bare.references.clear();
            for (std::size_t i = 0; i + 1 < m_members.size(); ++i) {
                Publication copy = bare;
                m_members[i]->publish(std::move(copy));
            }
        }
        if (!m_members.empty()) m_members.back()->publish(std::move(publication));
    }
    void drain() override {
        for (Publisher* member : m_members) member->drain();
    }
    std::optional<std::string> failure() const override {
        for (const Publisher* member : m_members)
            if (auto failed = member->failure()) return failed;
        return std::nullopt;
    }

private:
    std::vector<Publisher*> m_members;
};

}  // namespace fmp4mux
