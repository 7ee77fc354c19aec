// Object: a raw git object, its type and contents with the id they hash to; RefDelta: a pack entry
// still waiting for its base. Immutable values, safe to share between threads.
#pragma once

#include <string>

#include "base/bytes.h"
#include "objects/object_type.h"

namespace corvane {

// The id is computed whenever an Object is built, so it can never disagree with type and data.
class Object {
  public:
    Object(ObjectType type, Bytes data);

    const std::string& id() const { return id_; }
    ObjectType type() const { return type_; }
    // The contents without git's "<type> <size>\0" header.
    const Bytes& data() const { return data_; }

    bool operator==(const Object&) const = default;

  private:
    // id_ comes first: it hashes the data before data_ takes it over.
    std::string id_;
    ObjectType type_;
    Bytes data_;
};

// A ref_delta entry of a pack: the instructions that rebuild an object from the base named by id.
struct RefDelta {
    std::string source;
    Bytes data;

    bool operator==(const RefDelta&) const = default;
};

}  // namespace corvane
