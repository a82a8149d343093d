// How this appliance becomes a slave, and how it ceases to be one: both as a whole or not at all.
//
// A mark is there while either is under way. What a service that was killed left half done is removed at the next
// start, which makes the appliance no member.
#ifndef TARN_PLATFORM_CLUSTERD_ENROLMENT_H
#define TARN_PLATFORM_CLUSTERD_ENROLMENT_H

#include <string>

#include "platform/clusterd/certificates.h"
#include "platform/clusterd/member_list.h"

namespace tarn::platform {

// What a master gives to the appliance that joins it.
struct Invitation {
  std::string slave_id;
  Credentials credentials;
  std::string bus_url;
  int listener_port = 0;  // of the master
  Member_List members;    // the new slave included
};

std::string text_of_invitation(const Invitation &invitation);

// Answers 0; -EINVAL; -EKEYREJECTED when certificate, key, authority and id do not fit together.
int read_invitation(const std::string &text, Invitation *invitation);

bool is_member();

// Each answers 0 or a negative code. A join that failed has been undone. After either the service begins anew.
int join(const Invitation &invitation, const std::string &bus_folder);
int leave(const std::string &bus_folder);

// Removes what a service that was killed in the middle left; to be called first at the start.
int finish_interrupted_change(const std::string &bus_folder);

// The host and port of the bus's address; false when it is none.
bool parse_bus_url(const std::string &url, std::string *host, int *port);

std::string bus_url_of(const std::string &host, int port);

}  // namespace tarn::platform

#endif
