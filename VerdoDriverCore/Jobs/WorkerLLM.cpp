#include "VerdoDriverCore/Jobs/Worker.h"

namespace verdo {

void Worker::runLLM() { failUnrun("this driver does not run LLM jobs"); }

}  // namespace verdo
