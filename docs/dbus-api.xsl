<?xml version="1.0" encoding="UTF-8"?>
<!-- Turns an interface XML into a section of docs/dbus-api.md; scripts/dbus-api runs it. -->
<xsl:stylesheet version="1.0" xmlns:xsl="http://www.w3.org/1999/XSL/Transform">
  <xsl:output method="text" encoding="UTF-8"/>
  <xsl:strip-space elements="*"/>

  <xsl:template match="/node">
    <xsl:text>&#10;## Object `</xsl:text>
    <xsl:value-of select="@name"/>
    <xsl:text>`&#10;</xsl:text>
    <xsl:apply-templates select="interface"/>
  </xsl:template>

  <xsl:template match="interface">
    <xsl:text>&#10;Interface `</xsl:text>
    <xsl:value-of select="@name"/>
    <xsl:text>`&#10;</xsl:text>
    <xsl:apply-templates select="preceding-sibling::comment()"/>
    <xsl:apply-templates select="method | signal"/>
  </xsl:template>

  <xsl:template match="method">
    <xsl:text>&#10;### `</xsl:text>
    <xsl:value-of select="@name"/>
    <xsl:text>(</xsl:text>
    <xsl:apply-templates select="arg[@direction='in']"/>
    <xsl:text>)</xsl:text>
    <xsl:if test="arg[@direction='out']">
      <xsl:text> → </xsl:text>
      <xsl:apply-templates select="arg[@direction='out']"/>
    </xsl:if>
    <xsl:text>`&#10;</xsl:text>
    <xsl:call-template name="documentation"/>
  </xsl:template>

  <xsl:template match="signal">
    <xsl:text>&#10;### Signal `</xsl:text>
    <xsl:value-of select="@name"/>
    <xsl:text>(</xsl:text>
    <xsl:apply-templates select="arg"/>
    <xsl:text>)`&#10;</xsl:text>
    <xsl:call-template name="documentation"/>
  </xsl:template>

  <xsl:template match="arg">
    <xsl:if test="position() &gt; 1">, </xsl:if>
    <xsl:value-of select="concat(@type, ' ', @name)"/>
  </xsl:template>

  <!-- The comment right before a member describes it. -->
  <xsl:template name="documentation">
    <xsl:apply-templates select="preceding-sibling::node()[1][self::comment()]"/>
  </xsl:template>

  <!-- Comments hold tables in columns, so they are shown as they stand. -->
  <xsl:template match="comment()">
    <xsl:text>&#10;```text&#10;</xsl:text>
    <xsl:value-of select="."/>
    <xsl:text>&#10;```&#10;</xsl:text>
  </xsl:template>
</xsl:stylesheet>
