// Inside Secure's key provisioning service (KeyProvisioningV1), as this packager uses it: one document/literal
// SOAP 1.1 operation, ProvisionKey, asking the PlayReady key of a content at a position (Unix time in seconds).
// Written by hand for soapcpp2; the stubs are generated into the build tree. Elements the stubs do not know are
// skipped when a response is read.
//
// The namespace name below is ours: set it to the one the operator's server uses if it differs.

//gsoap insec schema namespace: urn:tovrane:kms:insidesecure:1
//gsoap insec schema elementForm: qualified
//gsoap insec schema attributeForm: unqualified

//gsoap insec service name: KeyProvisioning
//gsoap insec service type: KeyProvisioningV1
//gsoap insec service style: document
//gsoap insec service encoding: literal
//gsoap insec service namespace: urn:tovrane:kms:insidesecure:1

#import "stlvector.h"

class xsd__base64Binary {
public:
    unsigned char* __ptr;
    int __size;
};

class insec__ExternalContentIdentifier {
public:
    std::string contentID;
    std::string position;
};

class _insec__ProvisionKeyRequest {
public:
    std::string protectionSystem;
    insec__ExternalContentIdentifier* externalContentIdentifier;
};

class _insec__PlayReadyProvisionKeyResponse {
public:
    std::string* keyID;
    xsd__base64Binary* seed;
    xsd__base64Binary* encryptionKey;
};

//gsoap insec service method-action: ProvisionKey urn:tovrane:kms:insidesecure:1/KeyProvisioningV1/ProvisionKey
int __insec__ProvisionKey(_insec__ProvisionKeyRequest* insec__ProvisionKeyRequest,
                          _insec__PlayReadyProvisionKeyResponse& insec__PlayReadyProvisionKeyResponse);
