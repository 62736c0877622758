// Builds publish infos entry by entry.
//
// The memory comes from recording::host_malloc, so that a record of the library may free it and
// the leak check of the fixture sees it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "recording.h"

extern "C" {
#include "platform/vidl.h"
}

class PublishInfoBuilder {
  public:
    explicit PublishInfoBuilder(std::string name) : name_(std::move(name)) {}

    // Each of these adds an endpoint; the setters below them apply to the endpoint added last.
    PublishInfoBuilder &ip(uint8_t a, uint8_t b, uint8_t c, uint8_t d, uint32_t port);
    PublishInfoBuilder &path(const std::string &text);
    PublishInfoBuilder &raw(uint32_t type, std::vector<uint8_t> bytes);
    // count IP endpoints 10.0.0.1:1000, 10.0.0.2:1001, ...
    PublishInfoBuilder &endpoints(uint32_t count);

    PublishInfoBuilder &scope(uint32_t value);
    PublishInfoBuilder &instance(const std::string &text);
    PublishInfoBuilder &attribute(int32_t type, uint32_t value);
    PublishInfoBuilder &roles(uint32_t ha_role, uint32_t issu_role, uint32_t issu_id);

    // An info on the heap, markers 0: the caller owns it until a record holds it.
    ds_service_publish_info *build() const;
    // The same contents in the caller's storage, with the borrowed marker set.
    void build_borrowed(ds_service_publish_info *storage) const;

  private:
    struct Endpoint {
        uint32_t type = 0;
        std::vector<uint8_t> bytes;
        uint32_t scope = 3;
        std::optional<std::string> instance;
        std::vector<ds_service_attr_t> attributes;
    };
    void fill(ds_service_publish_info *info) const;
    static void fill_entry(ds_service_info_t *entry, const Endpoint &endpoint);

    std::string name_;
    std::vector<Endpoint> entries_;
};

// Frees an info that no record holds, contents and top level.
void free_publish_info(ds_service_publish_info *info);
