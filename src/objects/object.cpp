#include "objects/object.h"

#include <utility>

#include "objects/sha1.h"

namespace corvane {

Object::Object(ObjectType type, Bytes data)
    : id_(objectId(type, data)), type_(type), data_(std::move(data)) {}

}  // namespace corvane
