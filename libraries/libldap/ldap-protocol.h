// The LDAP protocol's numbers (RFC 4511): the tag of every request and
// response, the BER tags of the elements this library writes or reads, and
// which response answers which request.  The library and the tests name tags
// from here instead of writing hex, so a new operation is one line in this
// file and one row in kFinalResponses.
#ifndef TAV_LDAP_PROTOCOL_H
#define TAV_LDAP_PROTOCOL_H

#include "lber-int.h"
#include "tavldap_full.h"

namespace ldap_proto {

// ---- protocolOp of an LDAPMessage (lm_msgtype) -------------------------------

// Requests: [APPLICATION n], constructed except unbind, delete and abandon.
inline constexpr int kBindRequest = 0x60;
inline constexpr int kUnbindRequest = 0x42;
inline constexpr int kSearchRequest = 0x63;
inline constexpr int kModifyRequest = 0x66;
inline constexpr int kAddRequest = 0x68;
inline constexpr int kDeleteRequest = 0x4A;
inline constexpr int kModDNRequest = 0x6C;
inline constexpr int kCompareRequest = 0x6E;
inline constexpr int kAbandonRequest = 0x50;
inline constexpr int kExtendedRequest = 0x77;

// Responses: the public header names them already.
inline constexpr int kBindResponse = LDAP_RES_BIND;
inline constexpr int kSearchEntry = LDAP_RES_SEARCH_ENTRY;
inline constexpr int kSearchDone = LDAP_RES_SEARCH_RESULT;
inline constexpr int kModifyResponse = LDAP_RES_MODIFY;
inline constexpr int kAddResponse = LDAP_RES_ADD;
inline constexpr int kDeleteResponse = LDAP_RES_DELETE;
inline constexpr int kModDNResponse = LDAP_RES_MODRDN;
inline constexpr int kCompareResponse = LDAP_RES_COMPARE;
inline constexpr int kSearchReference = LDAP_RES_SEARCH_REFERENCE;
inline constexpr int kExtendedResponse = LDAP_RES_EXTENDED;
inline constexpr int kIntermediateResponse = LDAP_RES_INTERMEDIATE;

// ---- BER element tags --------------------------------------------------------

// Universal: the LDAPMessage envelope and every SEQUENCE is kSequence.
inline constexpr ber_tag_t kBoolean = 0x01;
inline constexpr ber_tag_t kInteger = 0x02;
inline constexpr ber_tag_t kOctetString = 0x04;
inline constexpr ber_tag_t kEnumerated = 0x0A;
inline constexpr ber_tag_t kSequence = 0x30;
inline constexpr ber_tag_t kSet = 0x31;

// LDAPMessage: controls [0] after the protocolOp.
inline constexpr ber_tag_t kControls = 0xA0;
// LDAPResult: referral [3] after the diagnostic message.
inline constexpr ber_tag_t kReferral = 0xA3;
// BindRequest's AuthenticationChoice: simple [0] or sasl [3]; BindResponse's
// serverSaslCreds [7].
inline constexpr ber_tag_t kSimpleAuth = 0x80;
inline constexpr ber_tag_t kSaslAuth = 0xA3;
inline constexpr ber_tag_t kServerSaslCreds = 0x87;
// ModifyDNRequest: newSuperior [0].
inline constexpr ber_tag_t kNewSuperior = 0x80;
// ExtendedRequest: requestName [0], requestValue [1]; ExtendedResponse:
// responseName [10], responseValue [11]; IntermediateResponse: [0], [1].
inline constexpr ber_tag_t kRequestName = 0x80;
inline constexpr ber_tag_t kRequestValue = 0x81;
inline constexpr ber_tag_t kResponseName = 0x8A;
inline constexpr ber_tag_t kResponseValue = 0x8B;
inline constexpr ber_tag_t kIntermediateName = 0x80;
inline constexpr ber_tag_t kIntermediateValue = 0x81;

// ---- which response answers which request ------------------------------------

// Each request that gets a response, and the final response that ends it.
// Unbind and abandon have none.
inline constexpr struct {
  int request, response;
} kFinalResponses[] = {{kBindRequest, kBindResponse},       {kSearchRequest, kSearchDone},
                       {kModifyRequest, kModifyResponse},   {kAddRequest, kAddResponse},
                       {kDeleteRequest, kDeleteResponse},   {kModDNRequest, kModDNResponse},
                       {kCompareRequest, kCompareResponse}, {kExtendedRequest, kExtendedResponse}};

// The final response of request_type; 0 for requests that get no response.
constexpr int final_response_for(int request_type) {
  for (const auto &f : kFinalResponses)
    if (request_type == f.request) return f.response;
  return 0;
}

// True when `type` ends a request's answer: nothing more comes for its ID.
constexpr bool is_final_response(int type) {
  for (const auto &f : kFinalResponses)
    if (type == f.response) return true;
  return false;
}

// Every protocolOp a server may send.
constexpr bool is_response(int type) {
  return is_final_response(type) || type == kSearchEntry || type == kSearchReference || type == kIntermediateResponse;
}

// Whether a response of response_type may belong to a request of
// request_type: its final response; entries and references before a search's
// end; IntermediateResponses before any final response (RFC 4511 4.13).
constexpr bool answers(int request_type, int response_type) {
  if (response_type == final_response_for(request_type) || response_type == kIntermediateResponse) return true;
  return request_type == kSearchRequest && (response_type == kSearchEntry || response_type == kSearchReference);
}

}  // namespace ldap_proto

#endif
