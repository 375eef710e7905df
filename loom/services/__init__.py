"""The managers that the engine reaches through the service table and the analysis manager.

They need the folder of `loom.bootstrap` on `sys.path` before they are imported.
"""
