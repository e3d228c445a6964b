#include "deidentify.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include <mbedtls/sha256.h>

namespace Scrub {
namespace {

// Actions of the profile: X remove, Z empty, D dummy value, U replace UID.
// Where the profile offers a choice (X/Z, X/Z/D...) the weakest one that
// still leaves a valid object is taken: Z for attributes the object must
// carry empty, X otherwise.
enum Action : char { Remove = 'X', Empty = 'Z', Dummy = 'D', Uid = 'U' };

struct Rule {
    DcmTagKey tag;
    Action action;
    bool strictOnly;  // kept unless strict: dates, times, study descriptions
};

const Rule kRules[] = {
    // Patient
    {DCM_PatientName, Empty, false},
    {DCM_PatientID, Empty, false},
    {DCM_IssuerOfPatientID, Remove, false},
    {DCM_IssuerOfPatientIDQualifiersSequence, Remove, false},
    {DCM_PatientBirthDate, Empty, false},
    {DCM_PatientBirthTime, Remove, false},
    {DCM_PatientSex, Empty, false},
    {DCM_PatientInsurancePlanCodeSequence, Remove, false},
    {DCM_PatientPrimaryLanguageCodeSequence, Remove, false},
    {DCM_RETIRED_OtherPatientIDs, Remove, false},
    {DCM_OtherPatientNames, Remove, false},
    {DCM_OtherPatientIDsSequence, Remove, false},
    {DCM_PatientBirthName, Remove, false},
    {DCM_PatientAge, Remove, false},
    {DCM_PatientSize, Remove, false},
    {DCM_PatientWeight, Remove, false},
    {DCM_PatientAddress, Remove, false},
    {DCM_PatientMotherBirthName, Remove, false},
    {DCM_MilitaryRank, Remove, false},
    {DCM_BranchOfService, Remove, false},
    {DCM_RETIRED_MedicalRecordLocator, Remove, false},
    {DCM_ReferencedPatientPhotoSequence, Remove, false},
    {DCM_MedicalAlerts, Remove, false},
    {DCM_Allergies, Remove, false},
    {DCM_CountryOfResidence, Remove, false},
    {DCM_RegionOfResidence, Remove, false},
    {DCM_PatientTelephoneNumbers, Remove, false},
    {DCM_PatientTelecomInformation, Remove, false},
    {DCM_EthnicGroup, Remove, false},
    {DCM_Occupation, Remove, false},
    {DCM_SmokingStatus, Remove, false},
    {DCM_AdditionalPatientHistory, Remove, false},
    {DCM_PregnancyStatus, Remove, false},
    {DCM_LastMenstrualDate, Remove, false},
    {DCM_PatientReligiousPreference, Remove, false},
    {DCM_PatientSexNeutered, Remove, false},
    {DCM_ResponsiblePerson, Remove, false},
    {DCM_ResponsibleOrganization, Remove, false},
    {DCM_PatientComments, Remove, false},
    {DCM_ReferencedPatientSequence, Remove, false},
    {DCM_PatientState, Remove, false},
    // Visit and admission
    {DCM_AdmissionID, Remove, false},
    {DCM_IssuerOfAdmissionIDSequence, Remove, false},
    {DCM_RouteOfAdmissions, Remove, false},
    {DCM_AdmittingDate, Remove, false},
    {DCM_AdmittingTime, Remove, false},
    {DCM_AdmittingDiagnosesDescription, Remove, false},
    {DCM_AdmittingDiagnosesCodeSequence, Remove, false},
    {DCM_RETIRED_DischargeDiagnosisDescription, Remove, false},
    {DCM_SpecialNeeds, Remove, false},
    {DCM_ServiceEpisodeID, Remove, false},
    {DCM_ServiceEpisodeDescription, Remove, false},
    {DCM_CurrentPatientLocation, Remove, false},
    {DCM_PatientInstitutionResidence, Remove, false},
    {DCM_VisitComments, Remove, false},
    // Study, request and procedure
    {DCM_AccessionNumber, Empty, false},
    {DCM_IssuerOfAccessionNumberSequence, Remove, false},
    {DCM_StudyID, Empty, false},
    {DCM_ReferringPhysicianName, Empty, false},
    {DCM_ReferringPhysicianAddress, Remove, false},
    {DCM_ReferringPhysicianTelephoneNumbers, Remove, false},
    {DCM_ReferringPhysicianIdentificationSequence, Remove, false},
    {DCM_ConsultingPhysicianName, Remove, false},
    {DCM_PhysiciansOfRecord, Remove, false},
    {DCM_PhysiciansOfRecordIdentificationSequence, Remove, false},
    {DCM_PerformingPhysicianName, Remove, false},
    {DCM_PerformingPhysicianIdentificationSequence, Remove, false},
    {DCM_NameOfPhysiciansReadingStudy, Remove, false},
    {DCM_PhysiciansReadingStudyIdentificationSequence, Remove, false},
    {DCM_OperatorsName, Empty, false},
    {DCM_OperatorIdentificationSequence, Remove, false},
    {DCM_ReferencedStudySequence, Remove, false},
    {DCM_ReferencedPerformedProcedureStepSequence, Remove, false},
    {DCM_RequestAttributesSequence, Remove, false},
    {DCM_RequestingPhysician, Remove, false},
    {DCM_RequestingService, Remove, false},
    {DCM_RETIRED_ReasonForStudy, Remove, false},
    {DCM_RequestedProcedureDescription, Remove, false},
    {DCM_RequestedProcedureID, Remove, false},
    {DCM_ReasonForTheRequestedProcedure, Remove, false},
    {DCM_RequestedProcedureComments, Remove, false},
    {DCM_RETIRED_StudyComments, Remove, false},
    {DCM_PlacerOrderNumberImagingServiceRequest, Empty, false},
    {DCM_FillerOrderNumberImagingServiceRequest, Empty, false},
    {DCM_OrderEnteredBy, Remove, false},
    {DCM_OrderEntererLocation, Remove, false},
    {DCM_OrderCallbackPhoneNumber, Remove, false},
    {DCM_ImagingServiceRequestComments, Remove, false},
    {DCM_ScheduledStationAETitle, Remove, false},
    {DCM_ScheduledStationName, Remove, false},
    {DCM_ScheduledProcedureStepLocation, Remove, false},
    {DCM_ScheduledPerformingPhysicianName, Remove, false},
    {DCM_ScheduledProcedureStepDescription, Remove, false},
    {DCM_ScheduledProcedureStepID, Remove, false},
    {DCM_PerformedStationAETitle, Remove, false},
    {DCM_PerformedStationName, Remove, false},
    {DCM_PerformedLocation, Remove, false},
    {DCM_PerformedProcedureStepID, Remove, false},
    {DCM_PerformedProcedureStepDescription, Remove, false},
    {DCM_CommentsOnThePerformedProcedureStep, Remove, false},
    {DCM_ConfidentialityConstraintOnPatientDataDescription, Remove, false},
    {DCM_RETIRED_IdentifyingComments, Remove, false},
    {DCM_RETIRED_AcquisitionComments, Remove, false},
    {DCM_ContributionDescription, Remove, false},
    // Institution and equipment
    {DCM_InstitutionName, Remove, false},
    {DCM_InstitutionAddress, Remove, false},
    {DCM_InstitutionCodeSequence, Remove, false},
    {DCM_InstitutionalDepartmentName, Remove, false},
    {DCM_StationName, Remove, false},
    {DCM_DeviceSerialNumber, Remove, false},
    {DCM_DeviceUID, Uid, false},
    {DCM_PlateID, Remove, false},
    {DCM_GeneratorID, Remove, false},
    {DCM_CassetteID, Remove, false},
    {DCM_GantryID, Remove, false},
    {DCM_DetectorID, Remove, false},
    {DCM_SourceSerialNumber, Remove, false},
    {DCM_SoftwareVersions, Remove, false},
    // Structured content: observers and authors
    {DCM_PersonName, Dummy, false},
    {DCM_PersonAddress, Remove, false},
    {DCM_PersonTelephoneNumbers, Remove, false},
    {DCM_VerifyingObserverName, Dummy, false},
    {DCM_VerifyingOrganization, Remove, false},
    {DCM_AuthorObserverSequence, Remove, false},
    {DCM_ParticipantSequence, Remove, false},
    {DCM_ContentCreatorName, Empty, false},
    {DCM_ContentCreatorIdentificationCodeSequence, Remove, false},
    {DCM_OriginalAttributesSequence, Remove, false},
    {DCM_DigitalSignaturesSequence, Remove, false},
    {DCM_MACParametersSequence, Remove, false},
    // UIDs
    {DCM_StudyInstanceUID, Uid, false},
    {DCM_SeriesInstanceUID, Uid, false},
    {DCM_SOPInstanceUID, Uid, false},
    {DCM_ReferencedSOPInstanceUID, Uid, false},
    {DCM_FrameOfReferenceUID, Uid, false},
    {DCM_SynchronizationFrameOfReferenceUID, Uid, false},
    {DCM_ReferencedFrameOfReferenceUID, Uid, false},
    {DCM_RETIRED_RelatedFrameOfReferenceUID, Uid, false},
    {DCM_InstanceCreatorUID, Uid, false},
    {DCM_StorageMediaFileSetUID, Uid, false},
    {DCM_IrradiationEventUID, Uid, false},
    {DCM_ConcatenationUID, Uid, false},
    {DCM_DimensionOrganizationUID, Uid, false},
    {DCM_UID, Uid, false},
    {DCM_FiducialUID, Uid, false},
    {DCM_TransactionUID, Uid, false},
    {DCM_DoseReferenceUID, Uid, false},
    // Dates, times and descriptions the basic mode keeps
    {DCM_InstanceCreationDate, Remove, true},
    {DCM_InstanceCreationTime, Remove, true},
    {DCM_StudyDate, Empty, true},
    {DCM_StudyTime, Empty, true},
    {DCM_SeriesDate, Remove, true},
    {DCM_SeriesTime, Remove, true},
    {DCM_AcquisitionDate, Remove, true},
    {DCM_AcquisitionTime, Remove, true},
    {DCM_AcquisitionDateTime, Remove, true},
    {DCM_ContentDate, Empty, true},
    {DCM_ContentTime, Empty, true},
    {DCM_RETIRED_OverlayDate, Remove, true},
    {DCM_RETIRED_OverlayTime, Remove, true},
    {DCM_RETIRED_CurveDate, Remove, true},
    {DCM_RETIRED_CurveTime, Remove, true},
    {DCM_TimezoneOffsetFromUTC, Remove, true},
    {DCM_PerformedProcedureStepStartDate, Remove, true},
    {DCM_PerformedProcedureStepStartTime, Remove, true},
    {DCM_PerformedProcedureStepEndDate, Remove, true},
    {DCM_PerformedProcedureStepEndTime, Remove, true},
    {DCM_StudyDescription, Remove, true},
    {DCM_SeriesDescription, Remove, true},
    {DCM_ProtocolName, Remove, true},
    {DCM_AcquisitionProtocolDescription, Remove, true},
    {DCM_DerivationDescription, Remove, true},
    {DCM_ImageComments, Remove, true},
    {DCM_FrameComments, Remove, true},
    {DCM_TextValue, Remove, true},
};

const Rule* findRule(const DcmTagKey& tag) {
    static const std::vector<Rule> sorted = [] {
        std::vector<Rule> v(std::begin(kRules), std::end(kRules));
        std::sort(v.begin(), v.end(), [](const Rule& a, const Rule& b) { return a.tag < b.tag; });
        return v;
    }();
    auto it = std::lower_bound(sorted.begin(), sorted.end(), tag,
                               [](const Rule& r, const DcmTagKey& t) { return r.tag < t; });
    return it != sorted.end() && it->tag == tag ? &*it : nullptr;
}

const char* dummyFor(DcmEVR vr) {
    switch (vr) {
    case EVR_DA: return "19000101";
    case EVR_TM: return "000000";
    case EVR_DT: return "19000101000000";
    case EVR_AS: return "000Y";
    case EVR_IS: case EVR_DS: return "0";
    default: return "ANONYMIZED";
    }
}

std::string trimUid(const char* text) {
    std::string s = text ? text : "";
    while (!s.empty() && (s.back() == ' ' || s.back() == '\0'))
        s.pop_back();
    return s;
}

void replaceUids(DcmElement* elem) {
    OFString value;
    if (elem->getOFStringArray(value).bad() || value.empty())
        return;
    std::string out, part;
    std::string in(value.c_str());
    size_t start = 0;
    while (true) {  // multi-valued UIDs are replaced value by value
        size_t end = in.find('\\', start);
        std::string uid = trimUid(in.substr(start, end - start).c_str());
        out += uid.empty() ? uid : replacementUid(uid);
        if (end == std::string::npos)
            break;
        out += '\\';
        start = end + 1;
    }
    elem->putString(out.c_str());
}

void scrubItem(DcmItem* item, const Options& options) {
    for (unsigned long i = item->card(); i-- > 0;) {
        DcmElement* elem = item->getElement(i);
        const DcmTag& tag = elem->getTag();
        if (tag.getGroup() & 1) {  // private, and the odd groups below 0009 no one may use
            delete item->remove(i);
            continue;
        }
        const Rule* rule = findRule(tag);
        if (rule && (!rule->strictOnly || options.strict)) {
            switch (rule->action) {
            case Remove:
                delete item->remove(i);
                continue;
            case Empty:
                elem->clear();
                continue;
            case Uid:
                replaceUids(elem);
                continue;
            case Dummy:
                if (elem->ident() != EVR_SQ) {
                    elem->putString(dummyFor(elem->ident()));
                    continue;
                }
                break;  // a sequence keeps its items, cleaned below
            }
        }
        if (elem->ident() == EVR_SQ) {
            auto* seq = static_cast<DcmSequenceOfItems*>(elem);
            for (unsigned long k = 0; k < seq->card(); ++k)
                scrubItem(seq->getItem(k), options);
        }
    }
}

void addMethodCode(DcmItem* dataset, const char* value, const char* meaning) {
    DcmItem* code = nullptr;
    if (dataset->findOrCreateSequenceItem(DCM_DeidentificationMethodCodeSequence, code, -2).good()) {
        code->putAndInsertString(DCM_CodeValue, value);
        code->putAndInsertString(DCM_CodingSchemeDesignator, "DCM");
        code->putAndInsertString(DCM_CodeMeaning, meaning);
    }
}

}  // namespace

std::string replacementUid(const std::string& uid) {
    unsigned char digest[32];
    mbedtls_sha256_ret(reinterpret_cast<const unsigned char*>(uid.data()), uid.size(), digest, 0);
    // Decimal of the 128-bit big-endian number by repeated division by ten.
    unsigned char num[16];
    memcpy(num, digest, sizeof num);
    std::string decimal;
    bool nonZero = true;
    while (nonZero) {
        unsigned rem = 0;
        nonZero = false;
        for (unsigned char& byte : num) {
            unsigned cur = rem * 256 + byte;
            byte = static_cast<unsigned char>(cur / 10);
            rem = cur % 10;
            nonZero = nonZero || byte != 0;
        }
        decimal += static_cast<char>('0' + rem);
    }
    std::reverse(decimal.begin(), decimal.end());
    return "2.25." + decimal;
}

void deidentify(DcmFileFormat& file, const Options& options) {
    DcmDataset* dataset = file.getDataset();
    scrubItem(dataset, options);

    dataset->putAndInsertString(DCM_PatientIdentityRemoved, "YES");
    std::string method = "Basic Application Confidentiality Profile";
    dataset->findAndDeleteElement(DCM_DeidentificationMethodCodeSequence);
    addMethodCode(dataset, "113100", "Basic Application Confidentiality Profile");
    if (options.pixelsCleaned) {
        method += "\\Clean Pixel Data Option";
        addMethodCode(dataset, "113101", "Clean Pixel Data Option");
    }
    if (!options.strict) {
        method += "\\Retain Longitudinal Temporal Information Full Dates Option";
        addMethodCode(dataset, "113106", "Retain Longitudinal Temporal Information Full Dates Option");
    }
    dataset->putAndInsertString(DCM_DeidentificationMethod, method.c_str());
    dataset->putAndInsertString(DCM_LongitudinalTemporalInformationModified,
                                options.strict ? "REMOVED" : "UNMODIFIED");

    // The meta header names the same instance as the dataset.
    DcmMetaInfo* meta = file.getMetaInfo();
    const char* sop = nullptr;
    if (dataset->findAndGetString(DCM_SOPInstanceUID, sop).good() && sop && *sop) {
        meta->putAndInsertString(DCM_MediaStorageSOPInstanceUID, sop);
    } else {
        DcmElement* metaUid = nullptr;
        if (meta->findAndGetElement(DCM_MediaStorageSOPInstanceUID, metaUid).good())
            replaceUids(metaUid);
    }
}

}  // namespace Scrub
