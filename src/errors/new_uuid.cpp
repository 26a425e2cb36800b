#include "errors/new_uuid.h"

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

namespace tovel {

std::string newUUID() {
  // One generator per process: seeding it costs a read of the entropy pool.
  static boost::uuids::random_generator generator;
  return boost::uuids::to_string(generator());
}

}  // namespace tovel
