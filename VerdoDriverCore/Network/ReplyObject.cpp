#include "VerdoDriverCore/Network/ReplyObject.h"

#include "VerdoDriverCore/Values/PyError.h"

namespace verdo {

JsonReading readReplyObject(std::string_view body, bool mayBringDefect) {
  JsonReading reading = readJson(body);
  if (!reading.value.asObject()) throw PyError("JSONDecodeError", "body is not an object");
  if (reading.defect && !(mayBringDefect && reading.value.find("job"))) {
    throw PyError("JSONDecodeError", *reading.defect);
  }
  return reading;
}

}  // namespace verdo
