package tavo.rux;

/**
 * Finds files of identical content and links them, in spaces that the client names.
 *
 * Requests and results are JSON texts. Every method answers with success; what came of it is in the
 * result, in the space's database files, or in the log. The order of the methods is that of the
 * transaction codes, from 1.
 */
interface IRux {
    /**
     * Scans directories into the databases of their spaces. Ends early when told by property. Optional
     * members of an element: "refresh", "follow_links", "one_file_system", "min_size", "max_size",
     * "lone_size".
     */
    void Rux_scanDuplicateFiles(@utf8InCpp String request);

    /** Groups, files and bytes to be given back, by space and in pages: {} while refused. */
    @utf8InCpp String Rux_getDuplicateFiles(@utf8InCpp String request);

    /** Links the duplicates of spaces: "GROUPS,BYTES". */
    @utf8InCpp String Rux_compressDuplicateFiles(@utf8InCpp String request);

    /** Gives linked files data of their own again: the bytes that are taken up by that. */
    long Rux_restoreDuplicateFiles(@utf8InCpp String request);

    /** Leaves a line in the log while a scan runs. What stops a scan is its property. */
    void Rux_forceStopScanDuplicateFiles();

    /** Sets the patterns of files that are never fingerprinted. */
    void Rux_setRUXExceptRules(@utf8InCpp String rules);

    /** Leaves a line in the log while a compression runs. What stops one is its property. */
    void Rux_stopCompressDuplicateFiles();
}
