// Irdeto's live DRM services, as this packager uses them: two document/literal SOAP 1.2 operations,
// GenerateKeys and CreateLiveEvent, in the wrapped form (one request element named after the operation, one
// response element holding its result). Written by hand for soapcpp2; the stubs are generated into the build
// tree. The service header (LiveDrmServiceHeader) is declared with the envelope, in soap_env.h. Elements the
// stubs do not know are skipped when a response is read.
//
// The namespace name below is ours: set it (here and in soap_env.h) to the one the operator's server uses if it
// differs.

//gsoap irdeto schema namespace: urn:tovrane:drm:irdeto:live
//gsoap irdeto schema elementForm: qualified
//gsoap irdeto schema attributeForm: unqualified

//gsoap irdeto service name: LiveDrmServicesSoap12
//gsoap irdeto service type: LiveDrmServicesSoap
//gsoap irdeto service style: document
//gsoap irdeto service encoding: literal
//gsoap irdeto service namespace: urn:tovrane:drm:irdeto:live
//gsoap irdeto service protocol: SOAP1.2

#import "stlvector.h"

class irdeto__ArrayOfString {
public:
    std::vector<std::string> string;
};

class _irdeto__GenerateKeys {
public:
    std::string* accountId;
    std::string* contentId;
    irdeto__ArrayOfString* protectionSystem;
    irdeto__ArrayOfString* trackTypes;
    std::string* cryptoPeriod;
};

// The keys as an XML text: a Keys element with one Key element per protection system.
class _irdeto__GenerateKeysResponse {
public:
    std::string* GenerateKeysResult;
};

class _irdeto__CreateLiveEvent {
public:
    std::string* sAccountID;
    std::string* sContentId;
    std::string* sName;
    std::string* sDescription;
    std::string* sUrl;
    std::string* sSubContentType;
    int nPolicyGroupId;
    std::string* sEncryptionType;
};

class _irdeto__CreateLiveEventResponse {
public:
    std::string* CreateLiveEventResult;
};

//gsoap irdeto service method-action: GenerateKeys urn:tovrane:drm:irdeto:live/GenerateKeys
int __irdeto__GenerateKeys(_irdeto__GenerateKeys* irdeto__GenerateKeys,
                           _irdeto__GenerateKeysResponse& irdeto__GenerateKeysResponse);
//gsoap irdeto service method-action: CreateLiveEvent urn:tovrane:drm:irdeto:live/CreateLiveEvent
int __irdeto__CreateLiveEvent(_irdeto__CreateLiveEvent* irdeto__CreateLiveEvent,
                              _irdeto__CreateLiveEventResponse& irdeto__CreateLiveEventResponse);
