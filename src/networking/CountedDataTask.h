#pragma once
// The one way service requests leave: through the session, counted.

#include "quorvel/networking/HttpSession.h"

namespace qvl {

/// session.dataTask(), counting the request and, when its answer comes, whether it got none
/// or a failure status (QVLApiClient::successfulResponse()). Every service request goes
/// through here.
void countedDataTask(HttpSession& session, HttpRequest request, DataTaskCompletion completion);

}  // namespace qvl
