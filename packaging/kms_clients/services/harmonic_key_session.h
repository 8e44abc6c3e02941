// The Harmonic key session service (KMS protocol 2.4), as this packager uses it: four document/literal SOAP 1.1
// operations (Heartbeat, CreateKeySession, InvalidKeySession, DestroyKeySession), with only the fields the client
// reads or writes. Written by hand for soapcpp2; the stubs are generated into the build tree. Elements the stubs
// do not know are skipped when a response is read, so the vendor's fuller messages parse. The service's other
// operations (GetClientParameters, GetKey, ListKeySession, GetKeySession) are not declared: the client never
// calls them.
//
// The namespace name below is ours, the same as the key provisioning service's: set it to the one the
// operator's server uses if it differs.

//gsoap harmonic243 schema namespace: urn:tovrane:kms:harmonic:2.4
//gsoap harmonic243 schema elementForm: qualified
//gsoap harmonic243 schema attributeForm: unqualified

//gsoap harmonic243 service name: KeySession
//gsoap harmonic243 service type: IKeySession
//gsoap harmonic243 service style: document
//gsoap harmonic243 service encoding: literal
//gsoap harmonic243 service namespace: urn:tovrane:kms:harmonic:2.4

class _harmonic243__HeartbeatRequest {
public:
    std::string version;
};

class _harmonic243__HeartbeatResponse {
public:
    int returnCode;
    std::string* errorMessage;
    std::string* status;
};

// assetType, encryptionAlgorithm and encryptionType are small enumerations of the vendor's schema, sent here as
// their numbers.
class _harmonic243__CreateKeySessionRequest {
public:
    int assetType;
    int cryptoPeriod;
    int encryptionAlgorithm;
    int encryptionType;
    int keyLength;
    std::string* opaqueData;
    std::string requestorId;
    std::string resourceId;
};

class _harmonic243__CreateKeySessionResponse {
public:
    int returnCode;
    std::string* errorMessage;
    std::string* keySessionURI;
};

class _harmonic243__InvalidKeySessionRequest {
public:
    std::string resourceId;
};

class _harmonic243__InvalidKeySessionResponse {
public:
    int returnCode;
    std::string* errorMessage;
    std::string* keySessionURI;
};

class _harmonic243__DestroyKeySessionRequest {
public:
    std::string resourceId;
};

class _harmonic243__DestroyKeySessionResponse {
public:
    int returnCode;
    std::string* errorMessage;
    std::string* resourceId;
};

// Document/literal without a wrapper: the parameters' names are the body's elements.
//gsoap harmonic243 service method-action: Heartbeat urn:tovrane:kms:harmonic:2.4/IKeySession/Heartbeat
int __harmonic243__Heartbeat(_harmonic243__HeartbeatRequest* harmonic243__HeartbeatRequest,
                             _harmonic243__HeartbeatResponse& harmonic243__HeartbeatResponse);
//gsoap harmonic243 service method-action: CreateKeySession urn:tovrane:kms:harmonic:2.4/IKeySession/CreateKeySession
int __harmonic243__CreateKeySession(_harmonic243__CreateKeySessionRequest* harmonic243__CreateKeySessionRequest,
                                    _harmonic243__CreateKeySessionResponse& harmonic243__CreateKeySessionResponse);
//gsoap harmonic243 service method-action: InvalidKeySession urn:tovrane:kms:harmonic:2.4/IKeySession/InvalidKeySession
int __harmonic243__InvalidKeySession(
    _harmonic243__InvalidKeySessionRequest* harmonic243__InvalidKeySessionRequest,
    _harmonic243__InvalidKeySessionResponse& harmonic243__InvalidKeySessionResponse);
//gsoap harmonic243 service method-action: DestroyKeySession urn:tovrane:kms:harmonic:2.4/IKeySession/DestroyKeySession
int __harmonic243__DestroyKeySession(
    _harmonic243__DestroyKeySessionRequest* harmonic243__DestroyKeySessionRequest,
    _harmonic243__DestroyKeySessionResponse& harmonic243__DestroyKeySessionResponse);
