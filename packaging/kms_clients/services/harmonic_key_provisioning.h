// The Harmonic key provisioning service (KMS protocol 2.4), as this packager uses it: one document/literal
// SOAP 1.1 operation, GetKeyAndSignalization, with only the fields the client reads or writes. Written by hand
// for soapcpp2; the stubs are generated into the build tree. Elements the stubs do not know are skipped when
// a response is read, so the vendor's fuller messages parse.
//
// The namespace name below is ours: set it to the one the operator's server uses if it differs.

//gsoap harmonic243 schema namespace: urn:tovrane:kms:harmonic:2.4
//gsoap harmonic243 schema elementForm: qualified
//gsoap harmonic243 schema attributeForm: unqualified

//gsoap harmonic243 service name: KeyProvisioning
//gsoap harmonic243 service type: IKey
//gsoap harmonic243 service style: document
//gsoap harmonic243 service encoding: literal
//gsoap harmonic243 service namespace: urn:tovrane:kms:harmonic:2.4

#import "stlvector.h"

// Literal XML: an element's content kept as text, whatever it holds.
typedef char* XML;

class xsd__base64Binary {
public:
    unsigned char* __ptr;
    int __size;
};

class harmonic243__SecurityProfileType {
public:
    int distributionMode;
    int streamingMode;
    int emi;
    int cryptoPeriod;
};

class harmonic243__DrmContentType {
public:
    std::string drmContentId;
    harmonic243__SecurityProfileType* profile;
};

class harmonic243__ContentKeyType {
public:
    std::string* keyId;
    xsd__base64Binary* key;
    xsd__base64Binary* iv;
};

class harmonic243__ScheduledKeyType {
public:
    ULONG64 time;
    harmonic243__ContentKeyType* contentKey;
};

class harmonic243__DrmSystemType {
public:
    std::string drmSystemId;
    std::string* drmName;
};

class harmonic243__PsshBoxType {
public:
    xsd__base64Binary* data;
};

class harmonic243__DrmInfoType {
public:
    std::string drmSystemId;
    std::string* drmName;
    std::string* manifestHeader;
    harmonic243__PsshBoxType* psshBox;
};

class harmonic243__DrmSignalizationType {
public:
    std::vector<harmonic243__DrmInfoType*> dash;
    std::vector<harmonic243__DrmInfoType*> hls;
    std::vector<harmonic243__DrmInfoType*> ss;
};

class _harmonic243__GetKeyAndSignalizationRequest {
public:
    harmonic243__DrmContentType* drmContent;
    std::vector<harmonic243__ScheduledKeyType*> scheduledKey;
    std::vector<harmonic243__DrmSystemType*> drmList;
};

class _harmonic243__GetKeyAndSignalizationResponse {
public:
    int returnCode;
    std::string* errorMessage;
    std::vector<harmonic243__ScheduledKeyType*> scheduledKey;
    harmonic243__ContentKeyType* contentKey;
    harmonic243__DrmSignalizationType* signalization;
    // Kept as the server wrote it; the client reads nothing of it.
    XML commonEncryptionParam;
};

//gsoap harmonic243 service method-action: GetKeyAndSignalization urn:tovrane:kms:harmonic:2.4/IKey/GetKeyAndSignalization
// Document/literal without a wrapper: the parameters' names are the body's elements.
int __harmonic243__GetKeyAndSignalization(
    _harmonic243__GetKeyAndSignalizationRequest* harmonic243__GetKeyAndSignalizationRequest,
    _harmonic243__GetKeyAndSignalizationResponse& harmonic243__GetKeyAndSignalizationResponse);
